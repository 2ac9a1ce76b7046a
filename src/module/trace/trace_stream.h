// TraceStream builds one trace line in the tracer's buffer and commits it in one piece.
//
// Unlike std::ostream it allocates nothing, and a piece that doesn't fit disappears silently. The module adds
// no time, no level and no line end; the tracer receives the pieces and nothing else.
//
// Life: open -> committed. It is a local of one function, on one thread. If it is destroyed while open,
// because a piece threw, it commits what it has.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "trace/trace_record.h"
#include "types/basic_string.h"

namespace zel {

// The module's tag, which starts its lines. It ends in a tab.
inline constexpr char moduleTag[] = "veld_rep\t";

// Where a caught exception is reported.
struct TraceLocation {
  const char* tag;
  const char* functionName;  // may be null
};

class TraceStream {
 public:
  // The format flags that the output operations use.
  static constexpr std::uint32_t showBase = 0x0008;
  static constexpr std::uint32_t adjustLeft = 0x0040;
  static constexpr std::uint32_t adjustInternal = 0x0100;
  static constexpr std::uint32_t adjustField = 0x01c0;
  static constexpr std::uint32_t radixOctal = 0x0400;
  static constexpr std::uint32_t radixHexadecimal = 0x0800;
  static constexpr std::uint32_t radixField = 0x0e00;

  // Takes over the record's reference and buffer, which isn't null.
  explicit TraceStream(TraceRecord&& record);
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;
  ~TraceStream();

  // Returns space for `count` bytes of the line, or null. If the tracer refuses to grow the buffer, the line
  // so far is lost; the next piece asks again.
  char* Reserve(std::uint64_t count);

  // Writes the bytes unchanged, padded to `width`.
  TraceStream& PutAdjusted(std::string_view prefix, std::string_view text);
  TraceStream& PutText(std::string_view text) { return PutAdjusted({}, text); }
  TraceStream& PutText(const string& text) { return PutAdjusted({}, text.View()); }
  TraceStream& PutInt32(std::int32_t value);
  TraceStream& PutUInt32(std::uint32_t value);
  TraceStream& PutUInt64(std::uint64_t value);
  // Writes UTF-16 as UTF-8, without the locale. The padding counts UTF-16 units.
  TraceStream& PutWide(const wstring& text);
  // Writes the start of an exception line: tag and one more tab (if there is a tag), "FUNCTION() ".
  TraceStream& PutLocation(const TraceLocation& location);

  // Gives the line to the tracer. The stream must not be used afterwards.
  void Commit();

  std::uint32_t flags = 0x201;
  std::uint64_t precision = 6;  // not used by any output
  std::uint64_t width = 0;      // minimum width of the next item; every item resets it
  char fill = ' ';

 private:
  TraceStream& PutNumber(std::uint64_t magnitude, bool negative);
  void PutFill(std::uint64_t count);
  void PutBytes(std::string_view bytes);
  std::uint64_t Padding(std::uint64_t used) const { return used < width ? width - used : 0; }

  Ref<ITracer> tracer_;
  char* buffer_;
  std::uint64_t capacity_ = initialLineCapacity;
  std::uint64_t used_ = 0;
};

// Writes one line of the module: the tag, then the pieces that `write` puts into the stream. If the level is
// off or there is no tracer, `write` isn't called.
template <class Write>
void TraceLine(ITracer* tracer, std::uint32_t level, Write&& write) {
  TraceRecord record;
  OpenTraceRecord(&record, tracer, level);
  if (!record.buffer) return;
  TraceStream stream(std::move(record));
  stream.PutText(std::string_view(moduleTag));
  write(stream);
  stream.Commit();
}

// The same for a line with one constant text.
inline void TraceText(ITracer* tracer, std::uint32_t level, std::string_view text) {
  TraceLine(tracer, level, [&](TraceStream& line) { line.PutText(text); });
}

}  // namespace zel
