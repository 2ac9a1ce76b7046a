#include "trace/trace_stream.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "tests/fakes/fake_tracer.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using zel::TraceRecord;
using zel::TraceStream;

class TraceStreamTest : public testing::Test {
 protected:
  // Writes one line without a tag and returns what the tracer got.
  template <class Write>
  std::string Line(Write&& write) {
    TraceRecord record;
    zel::OpenTraceRecord(&record, tracer.Get(), zel::normalLevel);
    TraceStream stream(std::move(record));
    write(stream);
    stream.Commit();
    EXPECT_EQ(tracer->References(), 1u);
    return tracer->TakeLines().at(0).substr(4);
  }

  fakes::FakeWorld world;
  zel::Ref<fakes::FakeTracer> tracer = fakes::MakeFake<fakes::FakeTracer>(world);
};

TEST_F(TraceStreamTest, GrowsAtLeastToTwiceItsCapacity) {
  struct Case {
    std::vector<std::size_t> pieces;
    std::vector<std::string> growths;
  };
  for (const Case& c : {Case{{500, 12}, {}}, Case{{513}, {"grow 1024"}}, Case{{100, 2000}, {"grow 2100"}},
                        Case{{512, 1, 511, 1}, {"grow 1024", "grow 2048"}}}) {
    std::string expected;
    const std::string line = Line([&](TraceStream& stream) {
      tracer->TakeAsked();
      for (const std::size_t size : c.pieces) {
        const std::string piece(size, static_cast<char>('a' + expected.size() % 26));
        stream.PutText(std::string_view(piece));
        expected += piece;
      }
      EXPECT_EQ(stream.Reserve(UINT64_MAX - 2), nullptr) << "would overflow";
    });
    EXPECT_EQ(line, expected);
    EXPECT_THAT(tracer->TakeAsked(), ElementsAreArray(c.growths));
  }
}

TEST_F(TraceStreamTest, WritesNumbersAndWideTextPadded) {
  constexpr char16_t units[] = {u'a', 0xd83d, 0xde00, 0xd800, 0};
  constexpr std::uint32_t hex = TraceStream::radixHexadecimal | TraceStream::showBase;
  const auto put = [&](std::uint32_t flags, std::uint64_t width, std::int32_t value) {
    return Line([&](TraceStream& stream) {
      stream.flags = flags;
      stream.fill = '_';
      stream.width = width;
      stream.PutInt32(value);
      stream.width = width;
      stream.PutWide(zel::wstring(units));
    });
  };
  const std::string utf8 = "a\xf0\x9f\x98\x80\xed\xa0\x80";
  EXPECT_EQ(put(0x201, 0, INT32_MIN), "-2147483648" + utf8);
  EXPECT_EQ(put(0x201, 5, -42), "__-42_" + utf8) << "padded by its units";
  EXPECT_EQ(put(TraceStream::adjustLeft, 5, -42), "-42__" + utf8 + "_");
  EXPECT_EQ(put(TraceStream::adjustInternal, 5, -42), "-__42_" + utf8);
  EXPECT_EQ(put(hex, 0, -1), "0xffffffff" + utf8);
}

TEST_F(TraceStreamTest, PieceThatThrowsCommitsWhatTheLineHolds) {
  EXPECT_THROW(zel::TraceLine(tracer.Get(), zel::normalLevel,
                              [](TraceStream& stream) {
                                stream.PutText("so far");
                                throw std::runtime_error("piece");
                              }),
               std::runtime_error);
  EXPECT_THAT(tracer->TakeLines(), ElementsAre("700 veld_rep\tso far"));
  EXPECT_EQ(tracer->References(), 1u);
}

}  // namespace
}  // namespace veld_report::tests
