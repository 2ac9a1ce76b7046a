// How a trace line asks for room: once, more when it grows, and from the start after a refusal.

#include <string>

#include "gmock/gmock.h"
#include "tests/support/support_host.h"
#include "trace/trace_stream.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TraceLineTest : public testing::Test {
 protected:
  std::vector<std::string> Write(std::string_view piece) {
    zel::TraceLine(tracer.Get(), zel::normalLevel,
                   [&](zel::TraceStream& line) { line.PutText(piece).PutText("."); });
    return tracer->TakeLines();
  }

  const zel::Ref<TestTracer> tracer = MakeObject<TestTracer>();
};

TEST_F(TraceLineTest, OneWhoseLevelIsOffCostsOneCall) {
  // The last one says yes and gives no buffer.
  for (const zel::ResultCode refusal : {zel::ResultCode(1), zel::eUnexpected, zel::sOk}) {
    tracer->highestLevel = 0;
    tracer->refusal = refusal;
    EXPECT_THAT(Write("text"), IsEmpty());
    EXPECT_THAT(tracer->TakeAsked(), ElementsAre("700 512"));
    EXPECT_EQ(References(*tracer), 1u) << "no line holds it";
  }
}

TEST_F(TraceLineTest, GrowsWhenItMustAndLosesARefusedPiece) {
  const std::string tag = "700 veld_rep\t";
  for (const std::size_t size : {502u, 503u, 600u, 2000u}) {
    const std::string piece(size, 'n');
    EXPECT_THAT(Write(piece), ElementsAre(tag + piece + "."));
  }
  // 512 bytes hold the tag, 502 more and the last one; from there on the room doubles, or is what is needed.
  EXPECT_THAT(tracer->TakeAsked(), ElementsAre("700 512", "700 512", "grow 1024", "700 512", "grow 1024",
                                               "700 512", "grow 2009", "grow 4018"));
  tracer->refuseGrowth = true;
  EXPECT_THAT(Write(std::string(600, 'n')), ElementsAre("700 "));
  EXPECT_THAT(tracer->TakeAsked(), ElementsAre("700 512", "grow 1024", "grow 1")) << "each piece asks again";
}

}  // namespace
}  // namespace veld_report::tests
