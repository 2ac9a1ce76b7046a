// What the targets share: reading an input as a series of decisions, and aborting on a failure.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace veld_report::fuzz {

// Ends the process if the condition is false, which libFuzzer takes as a finding.
inline void Require(bool condition, std::string_view what) {
  if (condition) return;
  std::fprintf(stderr, "broken: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

// After the end of the input every decision is 0, so any input is complete.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

  bool Empty() const { return left_.empty(); }
  std::uint8_t Byte() {
    const std::string_view one = Bytes(1);
    return one.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(one[0]);
  }
  std::uint64_t Number(std::size_t bytes = 8) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) value = value << 8 | Byte();
    return value;
  }
  // Limits up to 256 use one byte, so that a small change of the input is a small change of the run.
  std::size_t Below(std::size_t limit) { return limit <= 256 ? Byte() % limit : Number(4) % limit; }
  bool OneIn(std::size_t chances) { return Below(chances) == chances - 1; }
  // Fewer at the end of the input.
  std::string_view Bytes(std::size_t count) {
    const std::string_view taken = left_.substr(0, count);
    left_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view Rest() { return Bytes(left_.size()); }
  template <class C>
  std::basic_string<C> Characters(std::size_t count) {
    std::basic_string<C> text;
    while (text.size() < count && !Empty()) text.push_back(static_cast<C>(Number(sizeof(C))));
    return text;
  }

 private:
  std::string_view left_;
};

}  // namespace veld_report::fuzz
