// What fork does to a reporter: the child has a copy of it, and must do nothing with that copy.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>

#include "host/queue/store_maintenance.h"
#include "tests/common/waiting.h"
#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

// A forked process, which ends with the object at the latest.
class Child {
 public:
  // `body` runs in the child and gives its exit code. No destructors run there.
  explicit Child(const std::function<int()>& body) : process_(fork()) {
    if (process_ == 0) _exit(body());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { End(); }

  // Returns its exit code; -1 if it hasn't ended in time.
  int Wait() {
    int status = -1;
    const bool ended = tests::Eventually([&] { return waitpid(process_, &status, WNOHANG) == process_; });
    if (!ended) return -1;
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void End() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = -1;
  }

 private:
  pid_t process_;
};

template <class Body>
bool IsRefused(Body&& body) {
  try {
    body();
  } catch (const ReporterError& error) {
    return error.Code() == zel::eInvalidState && *error.what() != '\0';
  }
  return false;
}

// Whether each operation is refused, in order.
std::vector<bool> Refusals(std::unique_ptr<Reporter>& reporter) {
  std::string why;
  return {reporter->TrySendJson(R"({"n":1})", "", &why) == zel::eInvalidState && !why.empty(),
          !reporter->Flush(seconds(60)),
          !reporter->FlushToStore(seconds(60)),
          IsRefused([&] { reporter->Stats(); }),
          IsRefused([&] { reporter->Forget(); }),
          reporter->TrySetSettings({}) == zel::eInvalidState,
          IsRefused([&] { reporter->CurrentSettings(); }),
          IsRefused([&] { reporter->SetListener({}); }),
          IsRefused([&] { reporter->SetLossListener({}); }),
          (reporter->AllowSending(true), !reporter->Close(seconds(60))),
          (reporter.reset(), true)};
}

class Fork : public ReporterTest {};

// Whatever locks other threads hold at that moment.
TEST_F(Fork, ChildIsRefusedAndSendsAndStoresNothing) {
  const auto server = Serve("out");
  auto reporter = std::make_unique<Reporter>(Options({{server->Url()}}));
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> accepted{0};
  std::thread producer([&] {
    while (!stop) {
      // Not more than the close can deliver on a slow machine.
      const bool sends = accepted < server->StoredItems() + 20'000;
      if (sends && reporter->TrySendJson(R"({"n":1})") == zel::sOk) ++accepted;
      if (!sends || accepted % 64 == 0) static_cast<void>(reporter->Stats());
    }
  });
  while (accepted == 0) std::this_thread::yield();
  for (int i = 0; i < 20; ++i) {
    Child child([&] { return static_cast<int>(std::ranges::count(Refusals(reporter), false)); });
    EXPECT_EQ(child.Wait(), 0) << "in child " << i;
  }
  stop = true;
  producer.join();
  EXPECT_TRUE(reporter->Close(seconds(100)));
  EXPECT_EQ(server->StoredItems(), accepted);
  reporter.reset();
  EXPECT_THAT(host::CheckStore(Path("store")).at(0).findings, testing::IsEmpty());
}

TEST_F(Fork, ChildThatExitsEndsAtOnce) {
  const auto server = Serve("out");
  const auto run = tests::RunProgram(
      {VELD_STATIC_PROGRAM, VELD_MODULE_PATH, Path("store"), server->Url(), "50000", "fork"});
  EXPECT_EQ(run.exitCode, 0) << run.errors;
  EXPECT_THAT(Stored("out"), testing::SizeIs(2)) << "of the parent";
}

TEST_F(Fork, ChildOfAKilledParentHoldsNoLock) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer allows no new threads in a child of a process with threads";
#endif
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Child parent([&] {
    const Reporter reporter(Options({{"http://127.0.0.1:1"}}));
    if (fork() != 0) return pause();
    const pid_t own = getpid();  // told by itself, so after what a fork does in the child
    return write(ends[1], &own, sizeof own) == sizeof own ? pause() : 1;
  });
  pid_t grandchild = 0;
  ASSERT_EQ(read(ends[0], &grandchild, sizeof grandchild), static_cast<ssize_t>(sizeof grandchild));
  parent.End();
  std::string why;
  EXPECT_NE(Reporter::TryOpen(Options({{"http://127.0.0.1:1"}}), &why), nullptr) << why;
  kill(grandchild, SIGKILL);
  for (const int end : ends) close(end);
}

TEST_F(Fork, ChildOpensAReporterOnlyOnAnotherStore) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the thread sanitizer allows no new threads in a child of a process with threads";
#endif
  const auto server = Serve("out");
  const Reporter reporter(Options({{server->Url()}}));
  Child child([&] {
    if (Reporter::TryOpen(Options({{server->Url()}}))) return 2;  // its parent has that one open
    Reporter own(Options({{server->Url()}}, "another"));
    own.SendJson(R"({"child":1})");
    return own.Flush(seconds(100)) ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"child":1})"));
}

TEST_F(Fork, FilesAndConnectionsDontReachOtherPrograms) {
  // The files and connections that a program started here would get.
  const auto inheritable = [] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int descriptor = std::stoi(entry.path().filename());
      const int flags = fcntl(descriptor, F_GETFD);
      sockaddr_storage address{};
      socklen_t size = sizeof address;
      const bool isSocket = getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
      // libcurl wakes itself by a pair of sockets that lead nowhere.
      if (flags < 0 || (flags & FD_CLOEXEC) != 0 || (isSocket && address.ss_family == AF_UNIX)) continue;
      names.insert(entry.path().filename().string() + " " + std::filesystem::read_symlink(entry).string());
    }
    return names;
  };
  tests::ScriptedServer silent(NeverAnswers);
  const auto before = inheritable();
  ReporterOptions options = Options({{silent.Url()}});
  options.traceFile = Path("trace");
  Reporter reporter(options);
  reporter.SendJson(R"({"n":1})");
  ASSERT_TRUE(silent.WaitForRequests(1));
  std::set<std::string> added;
  std::ranges::set_difference(inheritable(), before, std::inserter(added, added.end()));
  EXPECT_THAT(added, testing::IsEmpty());
}

}  // namespace
}  // namespace veld_report
