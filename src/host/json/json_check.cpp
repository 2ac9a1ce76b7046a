#include "host/json/json_check.h"

#include <simdjson.h>

#include <new>
#include <utility>

namespace veld_report::host {
namespace {

constexpr std::size_t idleLimit = 8;
constexpr std::size_t keptCapacityBytes = 1 << 20;  // a parser that has grown larger isn't kept

std::string WhyNot(simdjson::error_code error) {
  switch (error) {
    case simdjson::NUMBER_ERROR:
      return "it has a number that isn't valid JSON, or an integer beyond 64 bits (send that as text)";
    case simdjson::DEPTH_ERROR:
      return "its objects and arrays are nested deeper than " + std::to_string(JsonCheck::depthLimit) +
             " levels";
    case simdjson::UTF8_ERROR:
      return "it isn't valid UTF-8";
    case simdjson::UNESCAPED_CHARS:
      return "a string contains a control character";
    case simdjson::UNCLOSED_STRING:
      return "a string isn't closed";
    case simdjson::STRING_ERROR:
      return "a string has an escape that isn't valid";
    case simdjson::EMPTY:
      return "it is empty";
    case simdjson::CAPACITY:
      return "it is larger than 4 GiB";
    default:
      return "a value, comma, colon, bracket or quote is missing, or one is too many (" +
             std::string(simdjson::error_message(error)) + ")";
  }
}

}  // namespace

struct JsonCheck::Parser {
  simdjson::dom::parser parser;
  simdjson::dom::element root;  // of the text that was parsed last
};

JsonCheck::JsonCheck() {
  idle_.reserve(idleLimit);
  // simdjson creates static objects on first use. Using it here makes them outlive a static object that holds
  // this one.
  GiveBack(Borrow());
}
JsonCheck::~JsonCheck() = default;

bool JsonCheck::IsOneValue(std::string_view text) { return IsOneValue(text, nullptr); }

bool JsonCheck::IsOneValue(std::string_view text, std::string* why) {
  return Value(*this, text, why).IsValid();
}

JsonCheck::Value JsonCheck::Read(std::string_view text) { return {*this, text, nullptr}; }

JsonCheck::Value::Value(JsonCheck& check, std::string_view text, std::string* why)
    : check_(check), parser_(check.Borrow()) {
  // simdjson skips a byte order mark, but in JSON it isn't whitespace.
  const bool marked = text.starts_with("\xef\xbb\xbf");
  const simdjson::error_code error = parser_->parser.parse(text.data(), text.size()).get(parser_->root);
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  if (why && marked) *why = "it begins with a byte order mark";
  if (why && !marked && error != simdjson::SUCCESS) *why = WhyNot(error);
  valid_ = error == simdjson::SUCCESS && !marked;
}

JsonCheck::Value::~Value() { check_.GiveBack(std::move(parser_)); }

bool JsonCheck::Value::IsObject() const { return valid_ && parser_->root.is_object(); }

bool JsonCheck::Value::IsEmptyObject() const {
  return IsObject() && parser_->root.get_object().value_unsafe().size() == 0;
}

bool JsonCheck::Value::Has(std::string_view name) const {
  return IsObject() && parser_->root.at_key(name).error() == simdjson::SUCCESS;
}

std::unique_ptr<JsonCheck::Parser> JsonCheck::Borrow() {
  {
    const std::lock_guard lock(mutex_);
    if (!idle_.empty()) {
      std::unique_ptr<Parser> parser = std::move(idle_.back());
      idle_.pop_back();
      return parser;
    }
  }
  auto parser = std::make_unique<Parser>();
  if (parser->parser.allocate(4096, depthLimit) != simdjson::SUCCESS) throw std::bad_alloc();
  return parser;
}

void JsonCheck::GiveBack(std::unique_ptr<Parser> parser) {
  if (parser->parser.capacity() > keptCapacityBytes) return;
  const std::lock_guard lock(mutex_);
  if (idle_.size() < idleLimit) idle_.push_back(std::move(parser));
}

}  // namespace veld_report::host
