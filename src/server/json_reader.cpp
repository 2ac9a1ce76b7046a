#include "server/json_reader.h"

#include <simdjson.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "host/base/printable.h"
#include "host/base/text.h"

namespace veld_report::server {
namespace {

// What a string holds as it is.
constexpr std::array<bool, 256> MakePlain() {
  std::array<bool, 256> plain{};
  for (std::size_t each = 0x20; each < plain.size(); ++each) plain[each] = each != '"' && each != '\\';
  return plain;
}
constexpr std::array<bool, 256> isPlain = MakePlain();

bool IsDigit(char character) { return character >= '0' && character <= '9'; }
bool IsHexDigit(char character) {
  return IsDigit(character) || (character >= 'a' && character <= 'f') ||
         (character >= 'A' && character <= 'F');
}

using OnElement = std::function<void(std::string_view)>;

// A recursive descent parser over one text. Only the parts of the outermost value go to `members` and
// `onElement`.
class Scanner {
 public:
  Scanner(std::string_view text, std::size_t maxDepth) : text_(text), depthLeft_(maxDepth) {
    if (simdjson::validate_utf8(text.data(), text.size())) return;
    while (std::size_t length = host::ValidUtf8Prefix(text.substr(position_))) position_ += length;
    Fail("not valid UTF-8");
  }

  // `list`, `onElement`: may be empty and null.
  void WholeObject(std::vector<JsonMember>* members, std::string_view list = {},
                   const OnElement* onElement = nullptr) {
    Begin('{', "isn't a JSON object");
    Object(members, list, onElement);
    End();
  }
  void WholeArray(const OnElement* onElement) {
    Begin('[', "isn't a JSON array");
    Array(onElement);
    End();
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw JsonError("isn't valid JSON at byte " + std::to_string(position_) + ": " + what);
  }
  [[noreturn]] void FailHere(const std::string& expected) const {
    const std::string found = AtEnd() ? "the end" : host::Printable(text_.substr(position_), 16);
    Fail("expected " + expected + ", found " + found);
  }
  bool AtEnd() const { return position_ == text_.size(); }
  char Peek() const { return AtEnd() ? '\0' : text_[position_]; }
  bool Take(char character) {
    if (AtEnd() || text_[position_] != character) return false;
    ++position_;
    return true;
  }
  void SkipBlanks() {
    while (!AtEnd() && (Peek() == ' ' || Peek() == '\n' || Peek() == '\r' || Peek() == '\t')) ++position_;
  }

  void Begin(char opening, const char* otherwise) {
    SkipBlanks();
    if (AtEnd()) throw JsonError("is empty");
    if (Peek() != opening)
      throw JsonError(std::string(otherwise) + ": it begins with " + host::Printable(text_, 16));
  }
  void End() {
    SkipBlanks();
    if (!AtEnd()) FailHere("the end");
  }

  std::string_view Value() {
    const std::size_t begin = position_;
    switch (Peek()) {
      case '{':
        Object(nullptr);
        break;
      case '[':
        Array(nullptr);
        break;
      case '"':
        String();
        break;
      case 't':
        Literal("true");
        break;
      case 'f':
        Literal("false");
        break;
      case 'n':
        Literal("null");
        break;
      default:
        Number();
    }
    return text_.substr(begin, position_ - begin);
  }

  void Descend() {
    ++position_;
    if (depthLeft_-- == 0) Fail("objects and arrays are nested too deeply");
    SkipBlanks();
  }

  void Object(std::vector<JsonMember>* members, std::string_view list = {},
              const OnElement* onElement = nullptr) {
    Descend();
    if (!Take('}')) {
      do {
        SkipBlanks();
        const std::size_t begin = position_;
        if (Peek() != '"') FailHere("a member's name in quotes");
        String();
        const std::string_view key = text_.substr(begin, position_ - begin);
        SkipBlanks();
        if (!Take(':')) FailHere("\":\" after a member's name");
        SkipBlanks();
        std::string name = members ? Unescaped(key) : std::string();
        const std::size_t valueBegin = position_;
        if (onElement && Peek() == '[' && name == list)
          Array(onElement);
        else
          Value();
        if (members) {
          if (members->size() == maxJsonMembers) Fail("an object has too many members");
          members->push_back({std::move(name), text_.substr(valueBegin, position_ - valueBegin)});
        }
        SkipBlanks();
      } while (Take(','));
      if (!Take('}')) FailHere("\",\" or \"}\" after a member");
    }
    ++depthLeft_;
  }

  void Array(const OnElement* onElement) {
    Descend();
    if (!Take(']')) {
      do {
        SkipBlanks();
        const std::string_view element = Value();
        if (onElement) (*onElement)(element);
        SkipBlanks();
      } while (Take(','));
      if (!Take(']')) FailHere("\",\" or \"]\" after an element");
    }
    ++depthLeft_;
  }

  void String() {
    ++position_;
    for (;;) {
      SkipPlain();
      if (Take('"')) return;
      if (AtEnd()) Fail("a string isn't closed");
      if (static_cast<unsigned char>(Peek()) < 0x20) Fail("a string contains a control character");
      ++position_;  // a backslash
      Escape();
    }
  }

  // Eight bytes at a time: most of what arrives here is one long string, or several short ones.
  void SkipPlain() {
    constexpr std::uint64_t each = 0x0101010101010101, high = each << 7;
    for (; text_.size() - position_ >= sizeof(std::uint64_t); position_ += sizeof(std::uint64_t)) {
      std::uint64_t eight = 0;
      std::memcpy(&eight, text_.data() + position_, sizeof eight);
      // A byte's high bit is set here if it is below 0x20, or zero once it is compared; that of a byte after
      // one of these may be set too, which is looked at below.
      const std::uint64_t quote = eight ^ each * '"', backslash = eight ^ each * '\\';
      const std::uint64_t found =
          ((eight - each * 0x20) & ~eight) | ((quote - each) & ~quote) | ((backslash - each) & ~backslash);
      if ((found & high) != 0) break;
    }
    while (!AtEnd() && isPlain[static_cast<unsigned char>(Peek())]) ++position_;
  }

  void Escape() {
    if (Take('u')) {
      for (int i = 0; i < 4; ++i) {
        if (!IsHexDigit(Peek())) FailHere("four hexadecimal digits after \"\\u\"");
        ++position_;
      }
      return;
    }
    if (AtEnd() || std::string_view("\"\\/bfnrt").find(Peek()) == std::string_view::npos) {
      FailHere("a valid escape");
    }
    ++position_;
  }

  void Literal(std::string_view word) {
    if (text_.substr(position_, word.size()) != word) FailHere("a value");
    position_ += word.size();
  }

  void Digits() {
    if (!IsDigit(Peek())) FailHere("a digit");
    while (IsDigit(Peek())) ++position_;
  }

  void Number() {
    if (Peek() != '-' && !IsDigit(Peek())) FailHere("a value");
    Take('-');
    if (!Take('0')) Digits();
    if (Take('.')) Digits();
    if (Take('e') || Take('E')) {
      if (!Take('+')) Take('-');
      Digits();
    }
  }

  static std::string Unescaped(std::string_view key) {
    const std::string_view inner = key.substr(1, key.size() - 2);
    if (inner.find('\\') == std::string_view::npos) return std::string(inner);
    try {
      return ReadJsonString(key);
    } catch (const JsonError&) {
      return std::string(inner);
    }
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t depthLeft_;
};

}  // namespace

std::vector<JsonMember> ReadJsonObject(std::string_view text, std::size_t maxDepth) {
  std::vector<JsonMember> members;
  Scanner(text, maxDepth).WholeObject(&members);
  return members;
}

std::vector<JsonMember> ReadJsonObject(std::string_view text, std::string_view list,
                                       const OnElement& onElement) {
  std::vector<JsonMember> members;
  Scanner(text, maxJsonDepth).WholeObject(&members, list, &onElement);
  return members;
}

void CheckJsonObject(std::string_view text, std::size_t maxDepth) {
  Scanner(text, maxDepth).WholeObject(nullptr);
}

void ReadJsonArray(std::string_view text, const OnElement& onElement, std::size_t maxDepth) {
  Scanner(text, maxDepth).WholeArray(&onElement);
}

std::string ReadJsonString(std::string_view text) {
  simdjson::dom::parser parser;
  std::string_view value;
  const simdjson::error_code code = parser.parse(text.data(), text.size()).get_string().get(value);
  if (code == simdjson::MEMALLOC) throw std::bad_alloc();
  if (code == simdjson::INCORRECT_TYPE) throw JsonError("isn't a string but " + host::Printable(text, 16));
  if (code) throw JsonError(std::string("isn't a valid JSON string: ") + simdjson::error_message(code));
  return std::string(value);
}

}  // namespace veld_report::server
