// Several processes on one store.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "host/queue/store_maintenance.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using host::ItemCount;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A process that runs a body and ends; killed, if it still runs, with the object.
class Child {
 public:
  explicit Child(const std::function<void()>& body) : process_(fork()) {
    if (process_ != 0) return;
    int code = 0;
    try {
      body();
    } catch (...) {
      code = 1;
    }
    // No destructors of the test program, and no reports of its own.
    _exit(testing::Test::HasFailure() ? 2 : code);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { Kill(); }

  void Kill() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    Wait();
  }
  // The exit code, or -1 for a killed process.
  int Wait() {
    int status = 0;
    const pid_t ended = waitpid(process_, &status, 0);
    process_ = -1;
    return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t process_;
};

class Signal {
 public:
  Signal() { EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0); }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  ~Signal() {
    close(ends_[0]);
    close(ends_[1]);
  }
  void Give() { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
  void Await() {
    char byte = 0;
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }

 private:
  int ends_[2] = {-1, -1};
};

class QueueProcessesTest : public StoreTest {
 protected:
  QueueProcessesTest() { options.shared = true; }
};

TEST_F(QueueProcessesTest, ASecondProcessIsRefusedUnlessBothShare) {
  struct Case {
    bool first;
    bool second;
    bool works;
  };
  for (const Case& row : {Case{false, false, false}, Case{false, true, false}, Case{true, false, false},
                          Case{true, true, true}}) {
    Signal open;
    Signal end;
    Child first([&] {
      options.shared = row.first;
      Open();
      Push("q", "first");
      open.Give();
      end.Await();
    });
    open.Await();
    options.shared = row.second;
    const std::string error = OpenError();
    EXPECT_EQ(error.find("in use by process") == std::string::npos, row.works) << error;
    end.Give();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(OpenError(), "") << "the lock has ended with its process";
  }
}

TEST_F(QueueProcessesTest, ProcessesSeeEachOthersItemsAndFigures) {
  Signal mine;
  Signal theirs;
  Signal looked;
  Signal removed;
  Child child([&] {
    mine.Await();
    Open();
    Push("q", "theirs");
    Push("r", "new queue");
    EXPECT_EQ(service->TotalWaiting(), (ItemCount{3, 19}));
    EXPECT_THAT(Waiting("q"), ElementsAre("mine", "theirs"));
    const auto full = Producer("q", 11);
    EXPECT_EQ(PushText(*full, "no room"), zel::eOutOfSpace) << "the items of all processes count";
    service->Commit();
    theirs.Give();
    looked.Await();
    EXPECT_TRUE(service->ClearQueue("q"));
    removed.Give();
  });
  Open();
  Push("q", "mine");
  mine.Give();
  theirs.Await();
  EXPECT_EQ(service->ListQueues().size(), 2u);
  EXPECT_THAT(Waiting("q"), ElementsAre("mine", "theirs"));
  EXPECT_EQ(service->Ledgers()["q"].rejected.items, 1);
  looked.Give();
  removed.Await();
  EXPECT_EQ(service->ListQueues().size(), 1u);
  Push("q", "anew");
  EXPECT_THAT(Waiting("q"), ElementsAre("anew"));
  const host::QueueLedger ledger = service->Ledgers()["q"];
  EXPECT_TRUE(ledger.IsBalanced());
  EXPECT_EQ(ledger.removed, (ItemCount{2, 10}));
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(QueueProcessesTest, OneProcessSendsAtATimeAndTheLeaseDiesWithIt) {
  Open();
  Push("q", "1");
  Push("q", "2");
  service.Reset();
  Signal reading;
  Signal never;
  Signal later;
  Child other([&] {
    later.Await();
    Open();
    EXPECT_THAT(Waiting("q"), ElementsAre("2", "3"));
  });
  Child holder([&] {
    Open();
    const auto reader = Reader("q");
    EXPECT_TRUE(ReadOne(*reader));
    reading.Give();
    never.Await();
  });
  reading.Await();
  Open();
  EXPECT_THAT(Waiting("q"), IsEmpty());
  {
    // Making room doesn't wait for the lease.
    const auto producer = Producer("q", 2);
    EXPECT_EQ(EvictAndPush(*producer, "q", "3"), zel::sOk);
  }
  EXPECT_EQ(service->Ledgers()["q"].evicted.items, 1);
  holder.Kill();
  EXPECT_THAT(Waiting("q"), ElementsAre("2", "3"));
  // And it ends with the last reader, not with the process.
  later.Give();
  EXPECT_EQ(other.Wait(), 0);
}

// Four processes push and send, two of them are killed in the middle.
TEST_F(QueueProcessesTest, FourProcessesOfWhichTwoAreKilledLoseAndRepeatNothing) {
  constexpr int processes = 4;
  constexpr std::size_t each = 1500;
  options.commitEveryPush = true;  // what was answered 0 must survive the kill
  const auto log = [&](const char* kind, int process) {
    return folder.Path() / (kind + std::to_string(process));
  };
  std::vector<std::unique_ptr<Signal>> halfway;
  std::vector<std::unique_ptr<Child>> children;
  for (int process = 0; process < processes; ++process) {
    halfway.push_back(std::make_unique<Signal>());
    children.push_back(std::make_unique<Child>([&, process] {
      Open();
      std::ofstream pushed(log("pushed", process));
      std::ofstream delivered(log("delivered", process));
      const auto producer = Producer("q");
      for (std::size_t i = 0; i < each; ++i) {
        const std::string text = std::to_string(process) + "-" + std::to_string(i);
        EXPECT_EQ(PushText(*producer, text), zel::sOk);
        pushed << text << std::endl;
        if (i == each / 2) halfway[static_cast<std::size_t>(process)]->Give();
        if (i % 50 != 0) continue;
        const auto reader = Reader("q");
        for (const ReadItem& item : ReadAll(*reader, 20)) {
          delivered << item.bytes << std::endl;
          EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
        }
      }
    }));
  }
  for (const auto& signal : halfway) signal->Await();
  children[0]->Kill();
  children[1]->Kill();
  EXPECT_EQ(children[2]->Wait(), 0);
  EXPECT_EQ(children[3]->Wait(), 0);

  Open();
  const auto lines = [&](const char* kind, int process) {
    std::vector<std::string> result;
    std::ifstream stream(log(kind, process));
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
  };
  std::map<std::string, int> seen;
  std::size_t repeatable = 0;  // what a killed process had read and may not have acknowledged in the file
  for (int process = 0; process < processes; ++process) {
    for (const std::string& text : lines("delivered", process)) ++seen[text];
    if (process < 2) repeatable += lines("delivered", process).size();
  }
  const auto waiting = Waiting("q");
  for (const std::string& text : waiting) ++seen[text];
  std::size_t repeated = 0;
  for (const auto& [text, times] : seen) repeated += static_cast<std::size_t>(times - 1);
  EXPECT_LE(repeated, std::min<std::size_t>(repeatable, 2 * 20)) << "no more than a visit of each killed one";
  for (int process = 0; process < processes; ++process) {
    const auto pushed = lines("pushed", process);
    EXPECT_GT(pushed.size(), each / 2);
    for (const std::string& text : pushed) EXPECT_EQ(seen.count(text), 1u) << text << " is lost";
  }
  const host::QueueLedger ledger = service->Ledgers()["q"];
  EXPECT_TRUE(ledger.IsBalanced());
  EXPECT_EQ(ledger.waiting.items, static_cast<std::int64_t>(waiting.size()));
  service.Reset();
  EXPECT_THAT(host::CheckStore(options.folder)[0].findings, IsEmpty());
}

}  // namespace
}  // namespace veld_report::tests
