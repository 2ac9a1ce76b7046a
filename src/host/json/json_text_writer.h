// JsonTextWriter writes the tokens of one JSON text to a stream.
//
// It writes compact JSON and knows nothing of structure: commas and nesting are up to the caller. It buffers
// its output, since each Write of the stream costs a virtual call. The first failure sticks and all later
// output is dropped, so a caller need only check at the end of a piece, not after each token.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contract/io.h"
#include "types/ref.h"

namespace veld_report::host {

// Life: writing -> failed (if something failed). For one thread at a time.
class JsonTextWriter {
 public:
  explicit JsonTextWriter(zel::Ref<zel::IIO> stream);

  // Writes the bytes unchanged.
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
    buffer_[used_++] = character;  // never written after a failure
  }
  // Writes a JSON string. Each invalid UTF-8 sequence (each maximal subpart, as Unicode 15 chapter 3.9
  // recommends) and each lone surrogate becomes U+FFFD. Only control characters, the quotation mark and the
  // backslash are escaped.
  void String(std::string_view utf8);
  void String(std::u16string_view utf16);
  void Boolean(bool value) { Raw(value ? std::string_view("true") : std::string_view("false")); }
  void Signed(std::int64_t value);
  void Unsigned(std::uint64_t value);
  // Writes the shortest form that reads back as the same value, with an exponent from 2^53 on. Writes null if
  // the value isn't finite.
  void Floating(double value);
  void Floating(float value);

  // Writes the buffer to the stream. Returns the first failure, or 0.
  zel::ResultCode Flush();

  // How many bytes the text has so far.
  std::uint64_t Bytes() const { return passedOn_ + used_; }
  // The stream's code if a Write failed, 0x80000062 "Out of space" if it took fewer bytes than given, the
  // argument of Fail, or 0.
  zel::ResultCode Failure() const { return failure_; }
  void Fail(zel::ResultCode code);

 private:
  void RawPastBuffer(std::string_view text);
  void WriteThrough(std::string_view text);
  void Escaped(unsigned char byte);

  zel::Ref<zel::IIO> stream_;
  zel::ResultCode failure_ = zel::sOk;
  std::size_t used_ = 0;
  std::uint64_t passedOn_ = 0;  // to the stream
  // The largest buffer with which the heap still serves a storage without a search.
  std::array<char, 888> buffer_;
};

}  // namespace veld_report::host
