// Clients that mean harm or don't know better, against a server in a process of its own: each of them is
// answered or cut in time, what the process holds stays within the bound that report_server.h states, and a
// client that behaves is served meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "server/report_server.h"
#include "tests/common/temporary_folder.h"
#include "tests/server/message_builder.h"
#include "tests/server/raw_client.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using server_test::exampleBody;
using server_test::Exchange;
using server_test::Post;
using server_test::RawAnswer;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t MiB = std::size_t{1} << 20;
constexpr unsigned threads = 2;
constexpr unsigned connectionLimit = 200;
constexpr std::size_t bodyLimitBytes = MiB;
constexpr std::size_t bodyMemoryBytes = 16 * MiB;
constexpr milliseconds soon{3000};  // on a busy machine
// The sum that report_server.h states, and room for what an allocator keeps.
constexpr std::size_t boundBytes =
    connectionLimit * 32 * 1024 + bodyMemoryBytes + threads * 6 * bodyLimitBytes + 8 * MiB;

const std::string postHead = "POST / HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";

std::string Repeated(std::string_view piece, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += piece;
  return text;
}

// Memory has another meaning under a sanitizer.
constexpr bool MemoryCounts() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#else
  return true;
#endif
}

class HostileClients : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    child_ = fork();
    ASSERT_GE(child_, 0);
    if (child_ == 0) Serve(ends[1], folder_.Path() / "out.ndjson");
    close(ends[1]);
    ASSERT_EQ(read(ends[0], &port_, sizeof(port_)), static_cast<ssize_t>(sizeof(port_)));
    close(ends[0]);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(Exchange(port_, Post(exampleBody)).status, 200);
    startBytes_ = PeakBytes();
  }
  void TearDown() override {
    for (const int handle : held_) close(handle);
    if (child_ <= 0) return;
    int status = 0;
    EXPECT_EQ(waitpid(child_, &status, WNOHANG), 0) << "the server has died";
    kill(child_, SIGKILL);
    waitpid(child_, &status, 0);
  }

  [[noreturn]] void Serve(int portTo, const std::string& out) const {
    ReportServerOptions options;
    options.outPath = out;
    options.threads = threads;
    options.connectionLimit = connectionLimit;
    options.bodyLimitBytes = bodyLimitBytes;
    options.bodyMemoryBytes = bodyMemoryBytes;
    options.requestTime = requestTime_;
    try {
      const ReportServer server(options);
      const std::uint16_t port = server.Port();
      if (write(portTo, &port, sizeof(port)) < 0) _exit(1);
      for (;;) pause();
    } catch (...) {
      _exit(1);
    }
  }

  // The most that the server has ever had in memory.
  std::size_t PeakBytes() const {
    std::ifstream status("/proc/" + std::to_string(child_) + "/status");
    for (std::string word; status >> word;) {
      std::size_t kibibytes = 0;
      if (word == "VmHWM:" && status >> kibibytes) return kibibytes * 1024;
    }
    return 0;
  }
  void ExpectBounded() const {
    const std::size_t grown = PeakBytes() - startBytes_;
    std::printf("the server has grown by %zu KiB, the bound is %zu\n", grown / 1024, boundBytes / 1024);
    EXPECT_TRUE(grown <= boundBytes || !MemoryCounts()) << grown << " bytes, more than " << boundBytes;
  }
  // A connection that stays until the test ends, with what it has sent so far.
  void HoldOpen(std::string_view text) {
    held_.push_back(server_test::Connect(port_));
    ASSERT_GE(held_.back(), 0);
    server_test::SendAll(held_.back(), text);
  }
  void ExpectServed(int count) const {
    for (int i = 0; i < count; ++i) {
      const auto start = Clock::now();
      const RawAnswer answer = Exchange(port_, Post(exampleBody));
      ASSERT_EQ(answer.status, 200) << answer.text;
      ASSERT_LT(Clock::now() - start, soon);
    }
  }

  milliseconds requestTime_{500};
  const tests::TemporaryFolder folder_;
  pid_t child_ = -1;
  std::uint16_t port_ = 0;
  std::size_t startBytes_ = 0;
  std::vector<int> held_;
};

TEST_F(HostileClients, IsAnsweredOrCut) {
  const std::string length = postHead + "Content-Length: ";
  const std::string atLimit =
      std::string(exampleBody) + std::string(bodyLimitBytes - exampleBody.size(), ' ');
  const std::string inChunks = postHead + "Transfer-Encoding: chunked\r\n\r\n";
  const struct {
    const char* what;
    std::string begin, more;   // `more` comes again and again, until the server ends it
    std::vector<int> answers;  // 0: cut
  } cases[] = {
      {"nothing", "", "", {0}},
      {"half of the headers, then nothing", "POST / HTTP/1.1\r\nHo", "", {0}},
      {"slow headers", "POST / HTTP/1.1\r\n", "A: b\r\n", {0, 431}},
      {"a slow line", "POST /", "a", {0, 414}},
      {"endless headers", "POST / HTTP/1.1\r\n" + Repeated("Name: value\r\n", 100'000), "", {0, 431}},
      {"an endless header", "POST / HTTP/1.1\r\nName: " + std::string(MiB, 'x'), "", {0, 431}},
      {"an endless line", "POST /" + std::string(MiB, 'x'), "", {0, 414}},
      {"a slow body", length + "1000\r\n\r\n", "x", {0}},
      {"a slow body in chunks", inChunks, "1\r\nx\r\n", {0}},
      {"a body that stops", length + "1000\r\n\r\n{", "", {0}},
      {"a length below the body's", length + "10\r\n\r\n" + std::string(exampleBody), "", {400}},
      {"a length that isn't one", length + "many\r\n\r\n{}", "", {400}},
      {"a negative length", length + "-1\r\n\r\n{}", "", {400}},
      {"a length beyond all numbers", length + std::string(40, '9') + "\r\n\r\n{}", "", {400, 413}},
      {"a length of 2^63", length + "9223372036854775808\r\n\r\n{}", "", {413}},
      {"chunk sizes that aren't", inChunks + "zz\r\nxx\r\n", "", {400}},
      {"a chunk of 2^63 bytes", inChunks + "8000000000000000\r\n", "x", {0, 400, 413}},
      {"not HTTP", Repeated("\x16\x03\x01\xff\n", 1000), "", {0, 400}},
      {"a body at the limit", Post(atLimit), "", {200}},
      {"a body over it", Post(atLimit + " "), "", {413}},
      {"a body far over it", Post(std::string(16 * MiB, ' ')), "", {413}},
      {"a body without end",
       inChunks + Repeated("400\r\n" + std::string(1024, ' ') + "\r\n", 8000),
       "",
       {0, 413}},
      {"deep nesting", Post(Repeated("[{\"\":", 100'000)), "", {400}},
      {"deep nesting of the payload", Post(Body("{\"array\":[" + Repeated("[", 100'000))), "", {400}},
      {"many members", Post("{" + Repeated("\"\":0,", 200'000) + "\"\":0}"), "", {400}},
      {"many items", Post(Body("{\"array\":[" + Repeated("0,", 300'000) + "0]}")), "", {200}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    const auto start = Clock::now();
    RawAnswer answer;
    if (each.more.empty()) {
      answer = Exchange(port_, each.begin);
    } else {
      HoldOpen(each.begin);
      pollfd waiting{held_.back(), POLLIN, 0};
      while (poll(&waiting, 1, 20) == 0 && Clock::now() - start < soon)
        send(held_.back(), each.more.data(), each.more.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      answer.text.resize(1000);
      const ssize_t got = recv(held_.back(), answer.text.data(), answer.text.size(), MSG_DONTWAIT);
      if (got > 9) answer.status = std::stoi(answer.text.substr(9, 3));
    }
    EXPECT_LT(Clock::now() - start, soon) << "it is neither answered nor cut";
    EXPECT_NE(std::find(each.answers.begin(), each.answers.end(), answer.status), each.answers.end())
        << answer.status << " " << answer.text.substr(0, 300);
    ExpectServed(1);
  }
  ExpectBounded();
}

// Time doesn't help the server here.
class HostileCrowds : public HostileClients {
 protected:
  HostileCrowds() { requestTime_ = std::chrono::minutes(10); }
};

// Each crowd is many times what the server takes at once.
TEST_F(HostileCrowds, KeepNobodyOutAndTakeBoundedMemory) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2000) GTEST_SKIP() << "this process may have too few files";

  const std::string most = std::string(bodyLimitBytes - 1, ' ');
  const struct {
    const char* what;
    std::size_t count;
    std::string text;
  } crowds[] = {
      {"idle", 1000, ""},
      {"half of the headers", 400, "POST / HTTP/1.1\r\nName: " + std::string(20'000, 'x')},
      {"half-sent bodies", 150,
       postHead + "Content-Length: " + std::to_string(bodyLimitBytes) + "\r\n\r\n" + most},
      {"lengths only claimed", 150,
       postHead + "Content-Length: " + std::to_string(bodyLimitBytes) + "\r\n\r\n{"},
  };
  for (const auto& crowd : crowds) {
    SCOPED_TRACE(crowd.what);
    for (std::size_t i = 0; i < crowd.count && !HasFatalFailure(); ++i) {
      HoldOpen(crowd.text);
      if (i % 50 == 49) ExpectServed(1);
    }
    ExpectServed(5);
  }
  ExpectBounded();
}

}  // namespace
}  // namespace veld_report::server
