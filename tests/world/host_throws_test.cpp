// A host that throws against its contract: what the module guards stays whole, and operations that promise a
// code return one.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/world/sender.h"
#include "tests/world/services.h"
#include "tests/world/world.h"

extern "C" zel::ResultCode zelCanUnloadModule();

namespace veld_report::world {
namespace {

TEST(HostThrowsTest, CleaningUpGoesUnnoticed) {
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    const Outcome outcome = RunScript(MakeScript(seed), Lie::cleanUp);
    ASSERT_FALSE(outcome.Failed()) << "seed " << seed << ": " << outcome.failure.text;
  }
}

constexpr zel::ResultCode refused = zel::eNotFound;
constexpr std::uint32_t handedIn = 0;  // a line that is handed in, as Host::traced gets it
const Settings two{.rows = {{0, 0}, {1, 0}}};

struct TracerCase {
  const char* what;
  std::uint32_t throwing;  // the level whose buffer can't be had, or handedIn
  Op fails;
  int failure;
  Entry entry;
  zel::ResultCode result;
};

// The operation's own failure counts, not that of the line that reports it.
const TracerCase tracerCases[] = {
    {"the line of a failed Construct", 300, Op::createClient, refused, Entry::construct, refused},
    {"the same, handed in", handedIn, Op::createClient, refused, Entry::construct, refused},
    {"a line of a Construct that would succeed", 700, Op::cancel, 0, Entry::construct,
     zel::eUnspecifiedError},
    {"the line of a failed submission", 300, Op::serialize, throws, Entry::submit, 0},
    {"the line of every submission", 700, Op::cancel, 0, Entry::submit, 0},
    {"the same, handed in", handedIn, Op::serialize, refused, Entry::submit, 0},
    {"the line of new settings", 700, Op::cancel, 0, Entry::settings, zel::eUnspecifiedError},
    {"the line of refused certificates", 300, Op::setCertificates, throws, Entry::settings,
     zel::eUnspecifiedError},
    {"the line of a failed drain", 300, Op::push, throws, Entry::run, 0},
};

class TracerThrowsTest : public testing::Test {
 protected:
  void Plan(Op op, int failure) {
    host.plans = {{.kind = Step::Kind::fault, .op = op, .b = failure == 0 ? 0 : 1, .c = failure}};
  }
  // What the entry came back with.
  Record Perform(Entry entry) {
    host.recording.clear();
    if (entry == Entry::construct) sender.Construct(two);
    if (entry == Entry::submit) sender.Submit(0, 30);
    if (entry == Entry::settings) sender.SetSettings(two);
    if (entry == Entry::run) sender.Run(static_cast<zel::IRunnable*>(host.sink));
    return host.recording.back();
  }
  std::ptrdiff_t Count(Op op) const {
    return std::count_if(host.recording.begin(), host.recording.end(),
                         [op](const Record& record) { return record.op == op; });
  }

  Host host{Lie::none};
  Model model{host};
  Sender sender{host, model};
};

TEST_F(TracerThrowsTest, AFailureKeepsItsCode) {
  for (const TracerCase& c : tracerCases) {
    SCOPED_TRACE(c.what);
    host.trace = true;
    sender.Create();
    if (c.entry != Entry::construct) {
      ASSERT_EQ(Perform(Entry::construct).result, 0);
    }
    if (c.entry == Entry::run) Perform(Entry::submit);
    if (c.entry == Entry::run) Perform(Entry::submit);
    host.traced = [&](std::uint32_t level) {
      if (level == c.throwing) throw Scripted();
    };
    Plan(c.fails, c.failure);
    const Record end = Perform(c.entry);
    EXPECT_FALSE(end.threw);
    EXPECT_EQ(end.result, c.result);
    if (c.entry == Entry::run) {
      EXPECT_EQ(Count(Op::push), 3) << "the second record goes to both of its queues";
    }
    host.traced = nullptr;
    host.plans.clear();
    sender.Release();
    EXPECT_FALSE(host.Failed()) << host.failure.text;
    EXPECT_EQ(zelCanUnloadModule(), 0);
  }
}

TEST_F(TracerThrowsTest, SettingsAreInForceThoughArmingThrows) {
  host.trace = true;
  sender.Create();
  Perform(Entry::construct);
  Perform(Entry::submit);
  Perform(Entry::run);
  Plan(Op::armTimer, throws);
  EXPECT_EQ(Perform(Entry::settings).result, 0);
  EXPECT_EQ(Count(Op::armTimer), 1);
  EXPECT_FALSE(host.recording.back().threw);
  sender.Release();
}

}  // namespace
}  // namespace veld_report::world
