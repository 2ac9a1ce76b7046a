// The host kit's serialiser with records of any shape. An input makes up descriptors, valid and invalid, and
// values for them. The JSON must read back as the values that went in, or be refused if the descriptor or a
// piece of finished JSON is invalid.
#include <simdjson.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/plain_text.h"
#include "tests/host/json_serialize.h"
#include "veld_report/field_helpers.h"
#include "veld_report/field_kinds.h"

namespace {

using namespace veld_report::fuzz;
namespace kinds = veld_report::field_kinds;

std::string Quoted(std::string_view utf8) {
  std::string text = "\"";
  for (const char each : utf8) {
    char code[8] = {each};
    if (each == '"' || each == '\\' || static_cast<unsigned char>(each) < ' ')
      std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(each));
    text += code;
  }
  return text + "\"";
}

// Digits alone would be an integer to a reader, and from 2^53 on one that it may not know.
template <class Float>
std::string Shortest(Float value) {
  char text[64] = "null";
  if (std::abs(value) < 0x1p53)
    *std::to_chars(text, text + 63, value).ptr = '\0';
  else if (std::isfinite(value))
    *std::to_chars(text, text + 63, value, std::chars_format::scientific).ptr = '\0';
  return text;
}

// The same values, written in one way. Empty if the text isn't JSON.
std::string Normal(std::string_view text) {
  static simdjson::dom::parser parser;
  simdjson::dom::element value;
  return parser.parse(text.data(), text.size()).get(value) ? "" : simdjson::minify(value);
}

struct Elements {
  std::vector<void*> each;
};

struct Helper final : veld_report::FieldMapHelper {
  static constexpr const char* keys[] = {"", "\"\\\n", "\xff\xed\xa0", "k"};

  enum { none, sizeFails, elementFails, nullElement, descriptorFails, wrongCount, faults } fault = none;
  const zel::SerObjDescriptor* descriptor = nullptr;
  std::uint32_t size = 0;

  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eNotSupported; }
  zel::ResultCode GetSize(const void* field, std::uint32_t* out) override {
    *out = static_cast<std::uint32_t>(static_cast<const Elements*>(field)->each.size());
    return fault == sizeFails ? zel::eNotFound : zel::sOk;
  }
  zel::ResultCode GetElement(void* field, std::uint32_t index, void** out) override {
    *out = fault == nullElement ? nullptr : static_cast<Elements*>(field)->each.at(index);
    return fault == elementFails ? zel::eNotFound : zel::sOk;
  }
  zel::ResultCode Visit(void* field, Visitor& visitor) override {
    for (std::uint32_t i = 0; i < static_cast<Elements*>(field)->each.size(); ++i) {
      void* value = nullptr;
      zel::ResultCode code = GetElement(field, i, &value);
      if (!zel::Failed(code)) code = visitor.Entry(keys[i % std::size(keys)], value);
      if (zel::Failed(code)) return code;
    }
    return zel::sOk;
  }
  zel::ResultCode GetElementDescriptor(const zel::SerObjDescriptor** out) override {
    *out = descriptor;
    return fault == descriptorFails ? zel::eNotFound : zel::sOk;
  }
  zel::ResultCode GetElementSize(std::uint32_t* out) override {
    *out = size;
    return zel::sOk;
  }
};

struct Schema {
  zel::SerObjDescriptor descriptor;
  std::deque<Helper> helpers;
  std::vector<zel::SerFieldDescriptor> rows;
  std::vector<const Schema*> inner;  // for each row that holds records
};

constexpr std::size_t slotBytes = 48;  // fits a value of any kind
static_assert(sizeof(zel::string) <= slotBytes && sizeof(Elements) <= slotBytes);

class Maker {
 public:
  explicit Maker(Input& in) : in_(in) {}
  Maker(const Maker&) = delete;
  Maker& operator=(const Maker&) = delete;
  ~Maker() {
    for (const auto& each : endings_) each();
  }

  // Of the first failure that the serialiser meets; 0 if there is none.
  zel::ResultCode Failure() const { return failure_; }

  const Schema* MakeSchema(int depth) {
    Schema& schema = schemas_.emplace_back();
    const std::size_t count = in_.Below(depth == 0 ? 7 : 4);
    for (std::size_t i = 0; i < count; ++i) {
      static constexpr const char* names[] = {"", "a", "payload", "\"\\\n", "\xff\xed\xa0", "g\xc3\xa9", "b"};
      static constexpr std::uint32_t forms[] = {0, kinds::vectorFlag, kinds::optionalFlag};
      zel::SerFieldDescriptor row{.name = names[in_.Below(std::size(names))], .flags = forms[in_.Below(3)]};
      // By name, so that the committed inputs keep their meaning.
      if (row.flags == kinds::vectorFlag && row.name == std::string_view("b")) row.flags = kinds::mapFlag;
      const Schema* inner = nullptr;
      row.offset = static_cast<std::uint32_t>(i * slotBytes);
      if (depth < 4 && in_.OneIn(4)) {
        inner = MakeSchema(depth + 1);
        row.flags |= kinds::recordFlag;
        row.typeId = inner->descriptor.serId;
      } else {
        PlainRow(&row);
      }
      Helper& helper = schema.helpers.emplace_back();
      helper.descriptor = inner ? &inner->descriptor : nullptr;
      helper.size = static_cast<std::uint32_t>(row.size);
      row.vectorHelper = &helper;
      if (in_.OneIn(64)) Spoil(&row, &helper);
      schema.rows.push_back(row);
      schema.inner.push_back(inner);
    }
    schema.rows.push_back({.flags = zel::SerFieldDescriptor::endOfTable});
    schema.descriptor = {.serId = static_cast<std::uint32_t>(schemas_.size()), .name = "Any"};
    schema.descriptor.size = count * slotBytes;
    schema.descriptor.fields = schema.rows.data();
    return &schema;
  }

  // Fills an instance and appends its JSON to `expected`.
  void* Fill(const Schema& schema, std::string* expected) {
    const std::size_t count = schema.inner.size();
    char* const block = blocks_.emplace_back(std::make_unique<char[]>(count * slotBytes + 1)).get();
    const bool isBare = count == 1 && schema.rows[0].name && !*schema.rows[0].name;
    if (!isBare) *expected += "{";
    for (std::size_t i = 0; i < count; ++i) {
      const zel::SerFieldDescriptor& row = schema.rows[i];
      const bool isBroken = !row.name || (row.flags & unknownFlag) != 0 || (~row.flags & bothFlags) == 0;
      if (isBroken || (row.flags != 0 && !row.vectorHelper)) Fail();
      if (failure_ != zel::sOk) return block;
      const std::string value =
          row.flags == 0 ? Value(row, block + row.offset) : Several(row, schema.inner[i], block + row.offset);
      if (isBare) *expected += value.empty() ? "null" : value;
      if (isBare || value.empty()) continue;
      *expected += Quoted(Repaired(std::string_view(row.name))) + ":" + value + ",";
    }
    if (!isBare) Close(expected, '}');
    return block;
  }

 private:
  static constexpr std::uint32_t unknownFlag = 0x00000100;
  static constexpr std::uint32_t bothFlags = kinds::vectorFlag | kinds::optionalFlag;

  void PlainRow(zel::SerFieldDescriptor* row) {
    static constexpr std::pair<std::uint32_t, std::uint64_t> all[] = {
        {kinds::boolean, 1},         {kinds::signedInteger, 1},   {kinds::signedInteger, 2},
        {kinds::signedInteger, 4},   {kinds::signedInteger, 8},   {kinds::unsignedInteger, 1},
        {kinds::unsignedInteger, 2}, {kinds::unsignedInteger, 4}, {kinds::unsignedInteger, 8},
        {kinds::floatingPoint, 4},   {kinds::floatingPoint, 8},   {kinds::narrowString, 48},
        {kinds::wideString, 48},     {kinds::standardString, 32}, {kinds::standardWideString, 32},
        {kinds::stringView, 16},     {kinds::jsonText, 48},       {kinds::standardJsonText, 32}};
    std::tie(row->typeId, row->size) = all[in_.Below(std::size(all))];
  }

  // In place of the comma after the last value, if there is one.
  static void Close(std::string* text, char bracket) {
    if (text->back() == ',') text->pop_back();
    text->push_back(bracket);
  }

  void Fail(zel::ResultCode code = zel::eInvalidArgument) {
    if (failure_ == zel::sOk) failure_ = code;
  }

  void Spoil(zel::SerFieldDescriptor* row, Helper* helper) {
    const std::size_t what = in_.Below(6);
    if (what == 0) row->name = nullptr;
    if (what == 1) row->flags |= unknownFlag;
    if (what == 2) row->flags |= bothFlags;
    if (what == 3) row->vectorHelper = nullptr;
    if (what == 4) row->typeId = 0x77;  // neither a kind nor a record type
    if (what == 5) helper->fault = decltype(helper->fault)(in_.Below(Helper::faults));
  }

  // Empty for an empty optional.
  std::string Several(const zel::SerFieldDescriptor& row, const Schema* inner, void* place) {
    const bool isMap = (row.flags & kinds::mapFlag) != 0;
    const bool isVector = isMap || (row.flags & kinds::vectorFlag) != 0;
    const bool isOptional = (row.flags & kinds::optionalFlag) != 0;
    const std::size_t count = isVector ? in_.Below(5) : isOptional ? in_.Below(2) : 1;
    const auto fault = static_cast<const Helper*>(row.vectorHelper)->fault;
    if (fault == Helper::sizeFails) Fail(zel::eNotFound);
    const bool wrongCount = fault == Helper::wrongCount && !isVector;
    if (wrongCount) Fail();
    auto* const elements = Put(place, Elements{});
    elements->each.resize(!wrongCount ? count : isOptional ? 2 : 0);
    if (inner && fault == Helper::descriptorFails) Fail(zel::eNotFound);
    if (inner && row.typeId != inner->descriptor.serId) Fail();
    if (count != 0 && fault == Helper::elementFails) Fail(zel::eNotFound);
    if (count != 0 && fault == Helper::nullElement) Fail(zel::eUnexpected);
    std::string expected = isMap ? "{" : isVector ? "[" : "";
    for (std::size_t i = 0; i < count && failure_ == zel::sOk; ++i) {
      void* element = nullptr;
      if (isMap)
        expected += Quoted(Repaired(std::string_view(Helper::keys[i % std::size(Helper::keys)]))) + ":";
      if (inner) {
        element = Fill(*inner, &expected);
      } else {
        element = blocks_.emplace_back(std::make_unique<char[]>(slotBytes)).get();
        expected += Value(row, element);
      }
      elements->each[i] = element;
      if (isVector) expected += ",";
    }
    if (isVector) Close(&expected, isMap ? '}' : ']');
    return expected;
  }

  // Makes a value and returns its JSON.
  std::string Value(const zel::SerFieldDescriptor& row, void* place) {
    const std::uint64_t bits = in_.Number(row.size <= 8 ? row.size : 0);
    const std::uint64_t spare = 64 - 8 * row.size;  // of a number
    switch (row.typeId) {
      case kinds::boolean:
        return *Put(place, static_cast<std::uint8_t>(bits)) != 0 ? "true" : "false";
      case kinds::signedInteger:
        return std::to_string(std::int64_t(*Put(place, bits) << spare) >> spare);
      case kinds::unsignedInteger:
        return std::to_string(*Put(place, bits));
      case kinds::floatingPoint:
        return row.size == 8 ? Shortest(*Put(place, std::bit_cast<double>(bits)))
                             : Shortest(*Put(place, std::bit_cast<float>(std::uint32_t(bits))));
      case kinds::narrowString:
        return Quoted(Repaired(Put(place, zel::string(Bytes()))->View()));
      case kinds::wideString:
        return Quoted(Repaired(Put(place, zel::wstring(std::u16string_view(Units())))->View()));
      case kinds::standardString:
        return Quoted(Repaired(*Put(place, std::string(Bytes()))));
      case kinds::standardWideString:
        return Quoted(Repaired(*Put(place, Units())));
      case kinds::stringView:
        return Quoted(Repaired(*Put(place, Bytes())));
      case kinds::jsonText:
        return Json(Put(place, zel::string(JsonBytes()))->View());
      case kinds::standardJsonText:
        return Json(*Put(place, std::string(JsonBytes())));
      default:
        Fail();
        return {};
    }
  }

  std::string_view Bytes() { return in_.Bytes(in_.Below(40)); }
  std::u16string Units() { return in_.Characters<char16_t>(in_.Below(20)); }
  std::string JsonBytes() {
    static constexpr std::string_view good[] = {"{\"a\" : [1,\t2.5e3,\n true,null]}", "\"x\\u00e9\\n\"",
                                                " -0 ", "[[{}],\r\n{\"b\":{}}]"};
    return std::string(in_.OneIn(2) ? in_.Bytes(in_.Below(200)) : good[in_.Below(4)]);
  }
  std::string Json(std::string_view text) {
    if (Normal(text).empty()) Fail();
    return std::string(text);
  }

  template <class T>
  T* Put(void* place, T value) {
    static_assert(sizeof(T) <= slotBytes);
    T* const made = new (place) T(std::move(value));
    if constexpr (!std::is_trivially_destructible_v<T>) endings_.push_back([made] { made->~T(); });
    return made;
  }

  Input& in_;
  zel::ResultCode failure_ = zel::sOk;
  std::deque<Schema> schemas_;
  std::deque<std::unique_ptr<char[]>> blocks_;
  std::vector<std::function<void()>> endings_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  Maker maker(in);
  const Schema* const schema = maker.MakeSchema(0);
  std::string expected;
  void* const object = maker.Fill(*schema, &expected);
  const auto result = veld_report::host::Serialize(zel::AnyPtr(object, &schema->descriptor));
  Require(result.code == maker.Failure(), "a wrong record passes, or a right one is refused");
  Require(result.flush == maker.Failure(), "Flush and Serialize don't agree");
  if (maker.Failure() != zel::sOk) return 0;
  const std::string wanted = Normal(expected);
  Require(!wanted.empty() && Normal(result.text) == wanted, "other values are read back: " + result.text);
  Require(result.text.find_first_of("\n\r\t") == std::string::npos, "a record isn't one line");
  return 0;
}
