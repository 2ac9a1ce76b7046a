// JsonCheck, the test whether a text is exactly one JSON value. It uses simdjson and keeps its parsers.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::host {

// Threads: any; a check holds no lock.
class JsonCheck {
 public:
  // Deepest nesting that is accepted. A reader at the far end sees the text inside two further levels, and
  // readers commonly stop at 1024.
  static constexpr std::size_t depthLimit = 512;

  JsonCheck();
  JsonCheck(const JsonCheck&) = delete;
  JsonCheck& operator=(const JsonCheck&) = delete;
  ~JsonCheck();

  // Whether `text` is one complete JSON value in valid UTF-8, with nothing but white space around it, nested
  // no deeper than the limit. Numbers that neither a 64-bit integer nor a double holds are refused: a reader
  // that can't take them would refuse the whole message. Throws std::bad_alloc.
  bool IsOneValue(std::string_view text);
  // The same; `*why` gets the reason of a refusal.
  bool IsOneValue(std::string_view text, std::string* why);

 private:
  struct Parser;
  std::unique_ptr<Parser> Borrow();
  void GiveBack(std::unique_ptr<Parser> parser);

  std::mutex mutex_;  // guards idle_, for moments
  std::vector<std::unique_ptr<Parser>> idle_;
};

}  // namespace veld_report::host
