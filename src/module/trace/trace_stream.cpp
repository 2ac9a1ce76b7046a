#include "trace/trace_stream.h"

#include <algorithm>
#include <cstring>

#include "types/text_conversion.h"

namespace zel {

TraceStream::TraceStream(TraceRecord&& record)
    : tracer_(std::move(record.tracer)), buffer_(std::exchange(record.buffer, nullptr)) {}

TraceStream::~TraceStream() {
  try {
    Commit();
  } catch (...) {
    // Another exception may be in flight; if the tracer throws, the line is lost.
  }
}

void TraceStream::Commit() {
  if (tracer_ && buffer_) tracer_->CommitBuffer(std::exchange(buffer_, nullptr), used_);
  tracer_.Reset();
}

char* TraceStream::Reserve(std::uint64_t count) {
  const std::uint64_t needed = used_ + count;
  if (needed < used_) return nullptr;
  if (needed > capacity_) {
    const std::uint64_t newCapacity = std::max(2 * capacity_, needed);
    if (tracer_->AcquireBuffer(ITracer::growLevel, &buffer_, newCapacity) == sOk) {
      capacity_ = newCapacity;
    } else {
      used_ = 0;
      capacity_ = 0;
    }
  }
  if (needed > capacity_) return nullptr;
  char* place = buffer_ + used_;
  used_ = needed;
  return place;
}

void TraceStream::PutFill(std::uint64_t count) {
  if (count == 0) return;
  if (char* place = Reserve(count)) std::memset(place, fill, count);
}

void TraceStream::PutBytes(std::string_view bytes) {
  if (bytes.empty()) return;
  if (char* place = Reserve(bytes.size())) std::memcpy(place, bytes.data(), bytes.size());
}

TraceStream& TraceStream::PutAdjusted(std::string_view prefix, std::string_view text) {
  const std::uint64_t padding = Padding(prefix.size() + text.size());
  const std::uint32_t adjust = flags & adjustField;
  if (adjust != adjustLeft && adjust != adjustInternal) PutFill(padding);
  PutBytes(prefix);
  if (adjust == adjustInternal) PutFill(padding);
  PutBytes(text);
  if (adjust == adjustLeft) PutFill(padding);
  width = 0;
  return *this;
}

TraceStream& TraceStream::PutNumber(std::uint64_t magnitude, bool negative) {
  static constexpr char digits[] = "0123456789abcdef";
  const std::uint32_t radixFlags = flags & radixField;
  const std::uint64_t radix = radixFlags == radixOctal ? 8 : radixFlags == radixHexadecimal ? 16 : 10;
  char text[24];
  char* const textEnd = text + sizeof(text);
  char* place = textEnd;
  do {
    *--place = digits[magnitude % radix];
    magnitude /= radix;
  } while (magnitude != 0);
  std::string_view prefix;
  if (negative) {
    prefix = "-";
  } else if (flags & showBase) {
    prefix = radix == 16 ? "0x" : radix == 8 ? "0" : "";
  }
  return PutAdjusted(prefix, {place, static_cast<std::size_t>(textEnd - place)});
}

TraceStream& TraceStream::PutInt32(std::int32_t value) {
  const std::uint32_t radixFlags = flags & radixField;
  const bool decimal = radixFlags != radixOctal && radixFlags != radixHexadecimal;
  const std::uint32_t bits = static_cast<std::uint32_t>(value);
  const bool negative = decimal && value < 0;
  return PutNumber(negative ? 0u - bits : bits, negative);
}

TraceStream& TraceStream::PutUInt32(std::uint32_t value) { return PutNumber(value, false); }
TraceStream& TraceStream::PutUInt64(std::uint64_t value) { return PutNumber(value, false); }

TraceStream& TraceStream::PutWide(const wstring& text) {
  const std::uint64_t padding = Padding(text.size);
  const bool left = (flags & adjustField) == adjustLeft;
  if (!left) PutFill(padding);
  if (char* place = Reserve(Utf8Length(text.View()))) EncodeUtf8(text.View(), place);
  if (left) PutFill(padding);
  width = 0;
  return *this;
}

TraceStream& TraceStream::PutLocation(const TraceLocation& location) {
  if (location.tag[0] != '\0') {
    PutText(std::string_view(location.tag));
    PutText(std::string_view("\t"));
  }
  PutText(std::string_view(location.functionName ? location.functionName : "(null)"));
  return PutText(std::string_view("() "));
}

}  // namespace zel
