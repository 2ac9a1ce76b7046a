// Every call of the host in a long life fails once, and every one from there on: with a negative result, with
// a positive one, and with an exception.

#include <iostream>
#include <map>

#include "tests/module/long_life.h"

namespace veld_report::tests {
namespace {

using Failure = Script::Failure;
// Nearly all of a life is one thread, so under the thread sanitizer a sample has to do, for its time.
#if defined(__SANITIZE_THREAD__)
constexpr int step = 4;
#else
constexpr int step = 1;
#endif

using Accounts = std::vector<LongLife::Account>;

struct Sweep {
  const char* name;
  Failure failure;
  bool onwards;
};

class HostFaults : public testing::TestWithParam<Sweep> {
 protected:
  // Lives with the nth call failing. Returns the operation, or nothing if the life has fewer calls.
  std::string LiveWith(int nth) {
    const auto [name, failure, onwards] = GetParam();
    LongLife life;
    Script& script = life.host.world.script;
    script.FailCall(nth, failure, onwards);
    const Accounts accounts = life.Run([&] {
      const std::string failed = script.FailedOperation();
      if (!failed.empty()) script.StopFailing();
      // A sender without a timer runs no cycle.
      return !failed.empty() && failed != "GetInterface 0xccd50778";
    });
    const std::string failed = script.FailedOperation();
    script.StopFailing();
    SCOPED_TRACE("call " + std::to_string(nth) + ", " + failed);
    const bool ofTrace = failed == "AcquireBuffer" || failed == "CommitBuffer";
    if (failed.empty()) {
      baseline = accounts;
    } else {
      Compare(accounts, failed, ofTrace);
    }
    life.CheckAfterwards(failed.empty() || (ofTrace && !onwards) ? LongLife::Loss::nothing
                         : onwards                               ? LongLife::Loss::submissions
                                                                 : LongLife::Loss::oneSubmission);
    // Memory that is refused leaves SetSettings as std::bad_alloc; an exception of the host's leaves nothing.
    for (const std::string& operation : life.Thrown()) {
      EXPECT_TRUE(operation == "SetSettings" && failure != Failure::throwing) << operation;
    }
    return failed;
  }
  // A positive result is a success, and a line that isn't wanted changes nothing else.
  void Compare(const Accounts& accounts, const std::string& failed, bool ofTrace) {
    const bool refuses = failed == "Read" || failed == "IsBackgroundDisabled" || GetParam().onwards;
    if (GetParam().failure == Failure::throwing || GetParam().onwards) return;
    for (std::size_t part = 0; part < accounts.size(); ++part) {
      if (ofTrace) {
        EXPECT_EQ(accounts[part].events, baseline[part].events);
        EXPECT_EQ(accounts[part].delivered, baseline[part].delivered);
      } else if (GetParam().failure == Failure::positive && !refuses) {
        EXPECT_EQ(accounts[part], baseline[part]);
      }
    }
  }

  Accounts baseline;
};

TEST_P(HostFaults, NothingBreaksLeaksOrIsLost) {
  ASSERT_EQ(LiveWith(1000000), "") << "without a failure, for comparison";
  std::map<std::string, int> points;
  for (int nth = 1;; nth += step) {
    const std::string failed = LiveWith(nth);
    if (failed.empty()) break;
    ++points[failed];
    ASSERT_FALSE(HasFailure()) << "call " << nth << ", " << failed;
    ASSERT_LT(nth, 5000);
  }
  int sum = 0;
  for (const auto& [operation, count] : points) {
    sum += count;
    std::cout << "  " << operation << " " << count << "\n";
  }
  std::cout << "calls failed: " << sum << " of " << points.size() << " operations" << std::endl;
  RecordProperty("calls_failed", sum);
  // Without a single look-up of the sender's nothing more is reached.
  EXPECT_GE(points.size(), GetParam().onwards || step > 1 ? 1u : 30u);
}

INSTANTIATE_TEST_SUITE_P(, HostFaults,
                         testing::Values(Sweep{"Negative", Failure::negative, false},
                                         Sweep{"Positive", Failure::positive, false},
                                         Sweep{"Throwing", Failure::throwing, false},
                                         Sweep{"NegativeOnwards", Failure::negative, true},
                                         Sweep{"ThrowingOnwards", Failure::throwing, true}),
                         [](const auto& sweep) { return sweep.param.name; });

}  // namespace
}  // namespace veld_report::tests
