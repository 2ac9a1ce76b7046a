// How a trace line asks for room: once, more when it grows, and from the start after a refusal.

#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "host/base/host_object.h"
#include "trace/trace_stream.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;

// Notes what it is asked for, and the lines. A buffer is exactly as large as asked for, so that a sanitizer
// sees a write past it.
class RoomTracer final : public host::HostObject<zel::ITracer> {
 public:
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    const bool grows = level == growLevel;
    notes.push_back((grows ? "grow " : "for ") + std::to_string(size));
    EXPECT_EQ(buffer_.empty(), !grows) << "one buffer at a time";
    if (grows ? refuseGrowth : refuse) return refusal;
    std::vector<char> fresh(size, '?');
    std::copy(buffer_.begin(), buffer_.end(), fresh.begin());
    buffer_ = std::move(fresh);
    *buffer = buffer_.data();
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    EXPECT_TRUE(buffer == buffer_.data() && length <= buffer_.size());
    notes.emplace_back(buffer, length);
    buffer_.clear();
    return zel::eUnexpected;  // nobody may look at it
  }

  bool refuse = false, refuseGrowth = false;
  zel::ResultCode refusal = 1;
  std::vector<std::string> notes;

 private:
  ~RoomTracer() override { EXPECT_TRUE(buffer_.empty()) << "a buffer is still out"; }
  std::vector<char> buffer_;
};

std::vector<std::string> Write(RoomTracer& tracer, std::string_view piece) {
  zel::TraceLine(&tracer, zel::normalLevel,
                 [&](zel::TraceStream& line) { line.PutText(piece).PutText("."); });
  return std::exchange(tracer.notes, {});
}

TEST(TraceLineTest, OneWhoseLevelIsOffCostsOneCall) {
  const auto tracer = host::MakeObject<RoomTracer>();
  tracer->refuse = true;
  // The last one says yes and gives no buffer.
  for (const zel::ResultCode refusal : {zel::ResultCode(1), zel::eUnexpected, zel::sOk}) {
    tracer->refusal = refusal;
    EXPECT_THAT(Write(*tracer, "text"), ElementsAre("for 512"));
  }
}

TEST(TraceLineTest, GrowsWhenItMustAndLosesARefusedPiece) {
  const auto tracer = host::MakeObject<RoomTracer>();
  const auto line = [](int size) { return "veld_rep\t" + std::string(size, 'n') + "."; };
  const auto write = [&](int size) { return Write(*tracer, std::string(size, 'n')); };
  // 512 bytes hold the tag, 502 more and the last one; from there on the room doubles, or is what is needed.
  EXPECT_THAT(write(502), ElementsAre("for 512", line(502)));
  EXPECT_THAT(write(503), ElementsAre("for 512", "grow 1024", line(503)));
  EXPECT_THAT(write(2000), ElementsAre("for 512", "grow 2009", "grow 4018", line(2000)));
  tracer->refuseGrowth = true;
  EXPECT_THAT(write(600), ElementsAre("for 512", "grow 1024", "grow 1", "")) << "each piece asks again";
}

}  // namespace
}  // namespace veld_report::tests
