// Power loss: random work on a store is recorded, and what a disk may hold of it at each moment is opened.
//
// VELD_POWER_SECONDS makes a long run of it, from VELD_TEST_SEED on.
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <iostream>
#include <random>

#include "tests/host/faulty_vfs.h"
#include "tests/host/power_log.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;

// When what is committed reaches the disk: with every commit, when the log is written back by the commit that
// fills it, or when a thread of the store does that meanwhile, for which it must be on SQLite's default VFS.
enum class Syncing { everyCommit, withTheLog, byAThread };

class PowerLossTest : public StoreTest, public testing::WithParamInterface<Syncing> {
 protected:
  using Clock = std::chrono::steady_clock;

  // A commit and where the log's steps stood: before it, when it was written, when it was answered.
  struct Commit {
    std::size_t begin;
    std::size_t written;
    std::size_t end;
    StoreModel holding;
  };

  PowerLossTest() {
    FaultyVfs::Register();
    sqlite3_vfs_register(sqlite3_vfs_find(FaultyVfs::name), 1);
    options.vfs = GetParam() == Syncing::byAThread ? "" : FaultyVfs::name;
    options.syncEveryCommit = GetParam() == Syncing::everyCommit;
    // Commits come where the test asks for them.
    options.commitOperations = 1'000'000;
    options.commitDelay = std::chrono::hours(1);
    options.tracer = lines.tracer;
    replay = options;
    replay.folder = replayFolder.Path();
  }
  std::size_t Draw(std::size_t below) { return random() % below; }
  bool Chance(double likelihood) { return std::uniform_real_distribution<>()(random) < likelihood; }

  // Makes a change and notes what must hold after it.
  void Change(const std::function<void()>& change) {
    const std::size_t begin = log->Now().count;
    change();
    const auto [end, written] = log->Now();
    commits.push_back({begin, written, end, model});
  }

  // Reads of one queue and pushes to another, in one transaction.
  void MoveItems() {
    const std::string from(1, "ab"[Draw(2)]);
    const std::string to(1, "ab"[Draw(2)]);
    const auto fate = [this](std::size_t) {
      return Chance(0.3) ? Fate::kept : Chance(0.8) ? Fate::acknowledged : Fate::givenBack;
    };
    const auto reader = Reader(from);  // writes what is buffered when it goes
    model.Visit(from, *reader, Draw(10), fate);
    const auto producer = Producer(to);
    // Large items fill the log.
    const double share = GetParam() == Syncing::byAThread ? 0.7 : 0.1;
    for (std::size_t left = Draw(8); left > 0; --left) {
      const std::string text = Numbered(number++) + std::string(Draw(Chance(share) ? 9000 : 900), '.');
      const zel::ResultCode answer = PushText(*producer, text);
      EXPECT_EQ(answer, zel::sOk);
      model.Pushed(to, text, answer);
    }
    EXPECT_TRUE(service->Commit());
  }
  void Step() {
    // What empties the log early is left out if the log has to fill up.
    const std::size_t kind = Draw(GetParam() == Syncing::byAThread ? 92 : 100);
    const std::string queue(1, "ab"[Draw(2)]);
    const auto remove = [this](const std::string& name) {
      Manager()->RemoveQueue(zel::string(name.c_str()));
      model.Removed(name);
    };
    if (kind < 90) {
      Change([&] { MoveItems(); });
    } else if (kind < 92) {
      Change([&] { remove(queue); });
    } else if (kind < 94) {
      Change([&] { service->ClearQueue(queue), model.Removed(queue); });
    } else if (kind < 95) {
      for (const char* each : {"a", "b"}) Change([&] { remove(each); });
      Change([&] { service->Forget(); });
    } else if (kind < 98) {
      Open();
    }
  }

  void Record(int steps) {
    log.emplace(folder.Path());
    commits = {{0, 0, 0, model}};
    Open();
    for (int i = 0; i < steps && !HasFailure(); ++i) Step();
    service.Reset();
    log->Stop();
  }

  // Opens what is on the disk. It must hold what stood there after one of these commits, whole.
  void Check(const DiskImage& image, std::size_t first, std::size_t last) {
    ++images;
    WriteImage(image, replay.folder);
    auto opened = host::QueueService::Open(replay);
    const StoreModel holding = StoreModel::Of(*opened);
    found = last + 1;
    while (found > first && !(commits[found - 1].holding == holding)) --found;
    EXPECT_GT(found, first) << "it holds what none of the commits " << first << " to " << last
                            << " left: " << testing::PrintToString(holding) << "instead of\n"
                            << testing::PrintToString(commits[last].holding);
    opened.Reset();
    EXPECT_THAT(lines.Take(), IsEmpty());
    EXPECT_THAT(host::DamagedFilesOf(host::StoreFilePath(replay.folder, usualDomain)), IsEmpty());
    EXPECT_THAT(host::CheckStore(replay.folder)[0].findings, IsEmpty());
  }

  // The power goes before a step, within it, and before it with some of what isn't synced missing.
  void LosePower(const Disk& disk, std::size_t step) {
    const DiskStep* const under = step < log->Steps().size() ? &log->Steps()[step] : nullptr;
    std::size_t last = commits.size() - 1;
    while (commits[last].begin > step) --last;
    std::size_t whole = last;
    while (commits[whole].written > step) --whole;
    std::size_t sure = whole;
    while (sure > 0 && (options.syncEveryCommit ? commits[sure].end > step : commits[sure].written > synced))
      --sure;
    const auto where = "step " + std::to_string(step) + " of " + std::to_string(log->Steps().size());
    {
      SCOPED_TRACE("all that was written, " + where);
      Check(disk.Whole(nullptr, random), whole, last);
    }
    if (under && under->kind == DiskStep::write) {
      SCOPED_TRACE("the last write torn, " + where);
      Check(disk.Whole(under, random), whole, last);
    }
    SCOPED_TRACE("part of what isn't synced, " + where);
    Check(disk.Reordered(random), sure, last);
  }

  void Sweep(double share) {
    const std::vector<DiskStep>& steps = log->Steps();
    Disk disk(log->Start());
    synced = 0;
    for (std::size_t i = 0; i <= steps.size() && !HasFailure(); ++i) {
      const bool amongWrites = i > 0 && i < steps.size() && steps[i - 1].kind == DiskStep::write &&
                               steps[i].kind == DiskStep::write;
      if (Chance(amongWrites ? share : 4 * share)) LosePower(disk, i);
      if (i == steps.size()) break;
      disk.Do(steps[i]);
      if (log->IsLogSync(steps[i])) synced = i;
    }
    EXPECT_TRUE(HasFailure() || commits.back().written <= synced) << "a close leaves nothing unsynced";
  }

  // The next recording begins with what a disk held after a loss, or with that in the earlier layout.
  void GoOnFromALoss() {
    const std::vector<DiskStep>& steps = log->Steps();
    Disk disk(log->Start());
    const std::size_t end = Draw(steps.size() + 1);
    for (std::size_t i = 0; i < end; ++i) disk.Do(steps[i]);
    const DiskImage image = disk.Reordered(random);
    Check(image, 0, commits.size() - 1);
    if (HasFailure()) return;
    model = commits[found - 1].holding;
    WriteImage(image, folder.Path());
    if (Chance(0.5)) return;
    Open();
    service.Reset();
    WriteInLayout(Chance(0.5) ? 1 : 2, model, StorePath());
  }

  void Run(std::uint64_t seed, int generations, int steps, double share) {
    SCOPED_TRACE("seed " + std::to_string(seed) + "; VELD_TEST_SEED sets it");
    random.seed(seed);
    model = {};
    WriteImage({}, folder.Path());
    for (int i = 0; i < generations && !HasFailure() && Clock::now() < deadline; ++i) {
      if (i > 0) GoOnFromALoss();
      Record(steps);
      if (!HasFailure()) Sweep(share);
    }
  }

  // In memory where there is such a folder: thousands of images are written.
  TemporaryFolder replayFolder{
      std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path()};
  host::QueueServiceOptions replay;
  TracedLines lines;
  std::mt19937_64 random;
  StoreModel model;
  std::optional<PowerLog> log;
  std::vector<Commit> commits;
  std::size_t synced = 0;  // number of the last sync that the sweep has come past
  std::size_t found = 0;   // number of the commit, from 1, that the last image held
  std::size_t images = 0;
  Clock::time_point deadline = Clock::time_point::max();  // of a long run
  std::size_t number = 0;
};

TEST_P(PowerLossTest, WhatWasSyncedOpensWholeAndInOrder) {
  auto seed = static_cast<std::uint64_t>(FromEnvironment("VELD_TEST_SEED", 1));
  const std::int64_t seconds = FromEnvironment("VELD_POWER_SECONDS", 0);
  Run(seed, 3, 60, 0.04);
  deadline = Clock::now() + std::chrono::seconds(seconds);
  while (!HasFailure() && Clock::now() < deadline) Run(++seed, 3, 160, 0.2);
  std::cout << "power loss: " << images << " images, seeds to " << seed << "\n";
}

INSTANTIATE_TEST_SUITE_P(WhenSynced, PowerLossTest,
                         testing::Values(Syncing::everyCommit, Syncing::withTheLog, Syncing::byAThread));

}  // namespace
}  // namespace veld_report::tests
