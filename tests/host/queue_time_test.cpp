// The age of items by the store's time, and the room that a file takes.
#include <gmock/gmock.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StoreTimeTest : public StoreTest {};

TEST_F(StoreTimeTest, AClockThatIsWrongOnceExpiresNothingAndKeepsNothing) {
  constexpr std::int64_t years = 14LL * 365 * 86'400'000;
  struct Step {
    std::int64_t pass, setClockBy = 0;
    bool machineRestarts = false, noteIsLost = false;
    bool waits = true;  // afterwards
  };
  const Step gone{1, 0, false, false, false};
  const std::vector<Step> courses[] = {{{20'000, years}, {20'000, -years}, {20'000}, gone},
                                       {{20'000, -years}, {20'000, years}, {20'000}, gone},
                                       {{20'000, 0, true}, {40'000}, gone},
                                       {{20'000, years, true}, {1, -years, true}, {30'000}, gone},
                                       {{20'000, years, true, true}, {1, -years, true, true}, {39'999}, gone},
                                       {{70'000, -years, false, true}, {60'000}, gone}};
  const auto machine = std::make_shared<ManualMachine>();
  options.machine = machine;
  options.maxAge = std::chrono::seconds(60);
  for (const bool processRestarts : {false, true}) {
    for (const std::vector<Step>& course : courses) {
      *machine = {};
      options.folder = folder.Path() / std::to_string(2 * (&course - courses) + processRestarts);
      Open();
      Push("q", "item");
      for (const Step& step : course) {
        SCOPED_TRACE(std::to_string(&course - courses) + ", step " + std::to_string(&step - course.data()));
        const bool reopens = processRestarts || step.machineRestarts || step.noteIsLost;
        if (reopens) service.Reset();
        machine->Pass(step.pass);
        machine->calendarMs += step.setClockBy;
        if (step.noteIsLost) std::filesystem::remove(StorePath().string() + ".time");
        if (step.machineRestarts) {
          machine->boot += '+';
          machine->uptimeMs = 1000;
        }
        if (reopens) Open();
        EXPECT_EQ(Waiting("q").empty(), !step.waits);
      }
    }
  }
}

TEST_F(StoreTimeTest, RoomThatAnOutageTookIsGivenBack) {
  Open();
  Push("q", "first");
  const std::string large(500'000, 'x');
  for (int i = 0; i < 50; ++i) Push("large", large);
  ASSERT_TRUE(service->Commit());
  Open();
  EXPECT_GT(std::filesystem::file_size(StorePath()), 23u << 20) << "full of items";
  {
    const auto reader = Reader("large");
    for (const ReadItem& item : ReadAll(*reader)) reader->Ack(&item.token);
  }
  EXPECT_TRUE(Eventually([&] { return std::filesystem::file_size(StorePath()) < 1 << 20; }));
  EXPECT_THAT(Waiting("q"), ElementsAre("first"));
  EXPECT_THAT(Findings(), IsEmpty());
}

}  // namespace
}  // namespace veld_report::tests
