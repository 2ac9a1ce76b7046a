#include "trace/trace_stream.h"

#include <string>

#include "gmock/gmock.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"

namespace veld_report::test {
namespace {

using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using zel::TraceRecord;
using zel::TraceStream;

// Writes one line without a tag and returns what the tracer got.
template <class Write>
std::string Line(RecordingTracer& tracer, Write&& write) {
  TraceRecord record;
  zel::OpenTraceRecord(&record, &tracer, zel::normalLevel);
  TraceStream stream(std::move(record));
  write(stream);
  stream.Commit();
  EXPECT_EQ(tracer.references, 0u);
  return tracer.lines.empty() ? "no line" : tracer.lines.back();
}

TEST(TraceRecord, OnlyExactlyZeroWithABufferIsYes) {
  RecordingTracer tracer;
  TraceRecord record;
  zel::OpenTraceRecord(&record, nullptr, zel::normalLevel);
  EXPECT_EQ(record.buffer, nullptr);
  for (const zel::ResultCode no : {1, zel::eNotFound}) {
    tracer.answer = no;
    zel::OpenTraceRecord(&record, &tracer, zel::normalLevel);
    EXPECT_EQ(record.buffer, nullptr);
    EXPECT_EQ(tracer.references, 0u);
  }
  tracer.answer = zel::sOk;
  tracer.giveNoBuffer = true;
  zel::OpenTraceRecord(&record, &tracer, zel::normalLevel);
  EXPECT_EQ(record.buffer, nullptr);
  EXPECT_EQ(tracer.references, 0u);
  EXPECT_EQ(tracer.requests, 3);
  EXPECT_THAT(tracer.lines, IsEmpty());
}

TEST(TraceLine, OpensWithTheTagAndCostsNothingWithItsLevelOff) {
  RecordingTracer tracer;
  const std::int64_t allocations = AllocationCount();
  zel::TraceText(nullptr, zel::normalLevel, "nowhere");
  tracer.answer = 1;
  zel::TraceLine(&tracer, zel::normalLevel, [](TraceStream&) { ADD_FAILURE() << "nobody wants it"; });
  EXPECT_EQ(tracer.requests, 1);
  EXPECT_EQ(AllocationCount(), allocations);
  tracer.answer = zel::sOk;
  zel::TraceText(&tracer, zel::failureLevel, "text");
  EXPECT_THAT(tracer.lines, ElementsAre("veld_rep\ttext"));
  EXPECT_THAT(tracer.levels, ElementsAre(300u));
}

TEST(TraceStream, GrowsAtLeastToTwiceItsCapacity) {
  struct Case {
    std::vector<std::uint64_t> pieces;
    std::vector<std::uint64_t> growths;
  };
  for (const Case& c : {Case{{512}, {}}, Case{{500, 12}, {}}, Case{{513}, {1024}}, Case{{512, 1}, {1024}},
                        Case{{100, 2000}, {2100}}, Case{{512, 1, 511, 1}, {1024, 2048}}, Case{{0}, {}}}) {
    RecordingTracer tracer;
    std::string expected;
    const std::string line = Line(tracer, [&](TraceStream& stream) {
      for (const std::uint64_t size : c.pieces) {
        const std::string piece(size, static_cast<char>('a' + expected.size() % 26));
        stream.PutText(std::string_view(piece));
        expected += piece;
      }
    });
    EXPECT_EQ(line, expected);
    EXPECT_EQ(tracer.growths, c.growths);
  }
}

TEST(TraceStream, RefusedGrowthLosesWhatTheLineHeld) {
  const std::string big(600, 'b');
  {
    RecordingTracer tracer;
    tracer.refusals = 1;
    EXPECT_EQ(Line(tracer,
                   [&](TraceStream& stream) {
                     stream.PutText("lost").PutText(std::string_view(big)).PutText("goes on");
                   }),
              "goes on");
    EXPECT_THAT(tracer.growths, ElementsAre(1024u, 7u));
  }
  RecordingTracer tracer;
  tracer.refusals = 100;
  EXPECT_EQ(
      Line(tracer,
           [&](TraceStream& stream) { stream.PutText("lost").PutText(std::string_view(big)).PutText("x"); }),
      "");
  EXPECT_THAT(tracer.growths, ElementsAre(1024u, 1u));
}

TEST(TraceStream, ReservationThatWouldOverflowChangesNothing) {
  RecordingTracer tracer;
  EXPECT_EQ(Line(tracer,
                 [](TraceStream& stream) {
                   stream.PutText("abc");
                   EXPECT_EQ(stream.Reserve(UINT64_MAX), nullptr);
                   EXPECT_EQ(stream.Reserve(UINT64_MAX - 2), nullptr);
                   stream.PutText("d");
                 }),
            "abcd");
  EXPECT_THAT(tracer.growths, IsEmpty());
}

TEST(TraceStream, WritesNumbers) {
  constexpr std::uint32_t left = TraceStream::adjustLeft, internal = TraceStream::adjustInternal;
  constexpr std::uint32_t octal = TraceStream::radixOctal, hex = TraceStream::radixHexadecimal;
  constexpr std::uint32_t base = TraceStream::showBase;
  struct Case {
    std::uint32_t flags;
    std::uint64_t width;
    std::int32_t value;
    std::string_view text;
  };
  for (const Case& c :
       {Case{0x201, 0, 0, "0"}, Case{0x201, 0, INT32_MIN, "-2147483648"}, Case{0x201, 5, -42, "__-42"},
        Case{left, 5, -42, "-42__"}, Case{internal, 5, -42, "-__42"}, Case{hex | base, 0, -1, "0xffffffff"},
        Case{hex | base | internal, 6, 0xab, "0x__ab"}, Case{octal | base, 6, 8, "___010"},
        Case{octal, 0, INT32_MIN, "20000000000"}, Case{base, 0, 7, "7"}}) {
    RecordingTracer tracer;
    EXPECT_EQ(Line(tracer,
                   [&](TraceStream& stream) {
                     stream.flags = c.flags;
                     stream.width = c.width;
                     stream.fill = '_';
                     stream.PutInt32(c.value);
                     EXPECT_EQ(stream.width, 0u);
                   }),
              c.text);
  }
  RecordingTracer tracer;
  EXPECT_EQ(Line(tracer,
                 [](TraceStream& stream) {
                   stream.PutUInt32(0).PutUInt64(0).PutText(" ").PutUInt32(UINT32_MAX).PutText(" ");
                   stream.PutUInt64(UINT64_MAX);
                 }),
            "00 4294967295 18446744073709551615");
}

TEST(TraceStream, WritesWideTextAsUtf8PaddedByItsUnits) {
  constexpr char16_t units[] = {u'a', 0xd83d, 0xde00, 0xd800, 0};
  RecordingTracer tracer;
  const zel::wstring text(units);
  const auto put = [&](std::uint32_t flags, const zel::wstring& wide) {
    return Line(tracer, [&](TraceStream& stream) {
      stream.flags = flags;
      stream.width = 6;
      stream.fill = '_';
      stream.PutWide(wide).PutText("|");
    });
  };
  EXPECT_EQ(put(0x201, text), "__a\xf0\x9f\x98\x80\xed\xa0\x80|");
  EXPECT_EQ(put(0x200 | TraceStream::adjustInternal, text), "__a\xf0\x9f\x98\x80\xed\xa0\x80|");
  EXPECT_EQ(put(0x200 | TraceStream::adjustLeft, text), "a\xf0\x9f\x98\x80\xed\xa0\x80__|");
  EXPECT_EQ(Line(tracer, [](TraceStream& stream) { stream.PutWide(zel::wstring()); }), "");
}

TEST(TraceStream, LocationOpensWithTheTagAndTwoTabs) {
  RecordingTracer tracer;
  EXPECT_EQ(Line(tracer,
                 [](TraceStream& stream) {
                   stream.PutLocation({zel::moduleTag, "a::b"});
                 }),
            "veld_rep\t\ta::b() ");
  EXPECT_EQ(Line(tracer, [](TraceStream& stream) { stream.PutLocation({"", nullptr}); }), "(null)() ");
}

TEST(TraceStream, PieceThatThrowsCommitsWhatTheLineHolds) {
  RecordingTracer tracer;
  EXPECT_THROW(zel::TraceLine(&tracer, zel::normalLevel,
                              [](TraceStream& stream) {
                                stream.PutText("so far");
                                throw std::runtime_error("piece");
                              }),
               std::runtime_error);
  EXPECT_THAT(tracer.lines, ElementsAre("veld_rep\tso far"));
  EXPECT_EQ(tracer.references, 0u);
}

}  // namespace
}  // namespace veld_report::test
