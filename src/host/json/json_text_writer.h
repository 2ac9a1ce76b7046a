// JsonTextWriter, the tokens of one JSON text on their way into a stream.
//
// It writes compact JSON and knows nothing of structure: commas and nesting are the caller's. It gathers its
// output in a small buffer, since each Write of the stream costs a virtual call. The first failure sticks and
// everything after it is dropped, so a caller asks once at the end of a piece and not at each token.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contract/io.h"
#include "types/ref.h"

namespace veld_report::host {

// Life: writing -> failed, if something failed. Belongs to one thread at a time.
class JsonTextWriter {
 public:
  explicit JsonTextWriter(zel::Ref<zel::IIO> stream);

  // Bytes as they stand.
  void Raw(std::string_view text) {
    if (text.size() > buffer_.size() - used_ || zel::Failed(failure_)) {
      RawPastBuffer(text);
      return;
    }
    std::copy(text.begin(), text.end(), buffer_.data() + used_);
    used_ += text.size();
  }
  void Raw(char character) {
    if (used_ == buffer_.size()) RawPastBuffer({});
    buffer_[used_++] = character;  // never handed on after a failure
  }
  // A JSON string. Each sequence that isn't valid UTF-8 (each maximal part of one, as Unicode 15 chapter 3.9
  // recommends) and each lone surrogate comes out as U+FFFD. Control characters, the quotation mark and the
  // backslash are escaped, nothing else.
  void String(std::string_view utf8);
  void String(std::u16string_view utf16);
  void Boolean(bool value) { Raw(value ? std::string_view("true") : std::string_view("false")); }
  void Signed(std::int64_t value);
  void Unsigned(std::uint64_t value);
  // The shortest form that reads back as the same value, with an exponent from 2^53 on; null if the value
  // isn't finite.
  void Floating(double value);
  void Floating(float value);

  // Hands on what stands in the buffer. Returns the first failure, or 0.
  zel::ResultCode Flush();

  // The stream's code if a Write of it failed, 0x80000062 "Out of space" if it took fewer bytes than it was
  // given, what Fail got, or 0.
  zel::ResultCode Failure() const { return failure_; }
  void Fail(zel::ResultCode code);

 private:
  void RawPastBuffer(std::string_view text);
  void WriteThrough(std::string_view text);
  void Escaped(unsigned char byte);

  zel::Ref<zel::IIO> stream_;
  zel::ResultCode failure_ = zel::sOk;
  std::size_t used_ = 0;
  // A storage with this much is still a block that the heap hands out without a search.
  std::array<char, 896> buffer_;
};

}  // namespace veld_report::host
