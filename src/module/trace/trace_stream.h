// TraceStream builds one trace line in a buffer that belongs to the tracer, and commits it in one piece.
//
// It is not a std::ostream: it allocates nothing, and a piece that finds no room vanishes silently. The
// module adds no time, no level and no line end; what the tracer receives is the pieces and nothing else.
//
// Life: open -> committed. It lives on the stack of one function and belongs to one thread. A stream that
// goes while it is open, because a piece threw, commits what it holds.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "trace/trace_record.h"
#include "types/basic_string.h"

namespace zel {

class Exception;

// The module's tag, the first piece of every line that is written by hand. It ends in a tab.
inline constexpr char moduleTag[] = "veld_rep\t";

// Where a caught exception is reported.
struct TraceLocation {
  const char* tag;
  const char* functionName;  // may be null
};

class TraceStream {
 public:
  // Bits of the format flags that the output operations read.
  static constexpr std::uint32_t showBase = 0x0008;
  static constexpr std::uint32_t adjustLeft = 0x0040;
  static constexpr std::uint32_t adjustInternal = 0x0100;
  static constexpr std::uint32_t adjustField = 0x01c0;
  static constexpr std::uint32_t radixOctal = 0x0400;
  static constexpr std::uint32_t radixHexadecimal = 0x0800;
  static constexpr std::uint32_t radixField = 0x0e00;

  // Takes over the record's reference and buffer; its buffer isn't null.
  explicit TraceStream(TraceRecord&& record);
  TraceStream(const TraceStream&) = delete;
  TraceStream& operator=(const TraceStream&) = delete;
  ~TraceStream();

  // Returns `count` bytes of the line to be written, or null. A growth that the tracer refuses loses what the
  // line held so far; the next piece asks again.
  char* Reserve(std::uint64_t count);

  // Bytes as they stand, padded to `width`.
  TraceStream& PutAdjusted(std::string_view prefix, std::string_view text);
  TraceStream& PutText(std::string_view text) { return PutAdjusted({}, text); }
  TraceStream& PutText(const string& text) { return PutAdjusted({}, text.View()); }
  TraceStream& PutInt32(std::int32_t value);
  TraceStream& PutUInt32(std::uint32_t value);
  TraceStream& PutUInt64(std::uint64_t value);
  // UTF-16 as UTF-8, without the locale. The padding counts UTF-16 units.
  TraceStream& PutWide(const wstring& text);
  // The head of an exception line: tag and one more tab (if there is a tag), "FUNCTION() ".
  TraceStream& PutLocation(const TraceLocation& location);
  // The display texts of the exception and of those chained to it, with ";" between them, through the locale.
  TraceStream& PutException(const Exception& exception);

  // Hands the line to the tracer. The stream must not be used afterwards.
  void Commit();

  std::uint32_t flags = 0x201;
  std::uint64_t precision = 6;  // read by no output
  std::uint64_t width = 0;      // least width of the next item; every item resets it
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

// Writes one line of the module: the tag, and then the pieces that `write` puts into the stream. With the
// level off, or without a tracer, `write` isn't called.
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

// The same for a line of one constant text.
inline void TraceText(ITracer* tracer, std::uint32_t level, std::string_view text) {
  TraceLine(tracer, level, [&](TraceStream& line) { line.PutText(text); });
}

}  // namespace zel
