// JsonCheck tests whether a text is exactly one JSON value. It uses simdjson and keeps its parsers.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::host {

// Threads: any; no lock is held during a check.
class JsonCheck {
 public:
  // The maximum nesting depth. A receiver sees the text two levels deeper, and readers commonly stop at 1024.
  static constexpr std::size_t depthLimit = 512;

  JsonCheck();
  JsonCheck(const JsonCheck&) = delete;
  JsonCheck& operator=(const JsonCheck&) = delete;
  ~JsonCheck();

  // True if `text` is one complete JSON value in valid UTF-8, with nothing but whitespace around it and not
  // nested deeper than the limit. Numbers that fit neither a 64-bit integer nor a double are refused: a
  // reader that can't handle them would refuse the whole message. Throws std::bad_alloc.
  bool IsOneValue(std::string_view text);
  // The same; `*why` receives the reason of a refusal.
  bool IsOneValue(std::string_view text, std::string* why);

  // The same, for those who need to know the names of an object's members. Throws std::bad_alloc.
  class Value;
  Value Read(std::string_view text);

 private:
  struct Parser;
  std::unique_ptr<Parser> Borrow();
  void GiveBack(std::unique_ptr<Parser> parser);

  std::mutex mutex_;  // guards idle_; held briefly
  std::vector<std::unique_ptr<Parser>> idle_;
};

// A checked text. For one thread; must not outlive its check.
class JsonCheck::Value {
 public:
  Value(JsonCheck& check, std::string_view text, std::string* why);
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  ~Value();

  // Whether the text is one value. If it isn't, the others return false.
  bool IsValid() const { return valid_; }
  bool IsObject() const;
  bool IsEmptyObject() const;
  // Whether the text is an object with this member.
  bool Has(std::string_view name) const;

 private:
  JsonCheck& check_;
  std::unique_ptr<Parser> parser_;
  bool valid_ = false;
};

}  // namespace veld_report::host
