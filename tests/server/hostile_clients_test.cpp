// Clients that mean harm or don't know better, against a server in a process of its own: each of them is
// answered or cut, what the process holds stays within the bound that report_server.h states, and a
// client that behaves is served meanwhile.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/common/files.h"
#include "tests/common/veldrep.h"
#include "tests/server/compress.h"
#include "tests/server/message_builder.h"
#include "tests/server/raw_client.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using server_test::exampleBody;
using server_test::Exchange;
using server_test::Post;
using server_test::RawAnswer;

constexpr std::size_t MiB = std::size_t{1} << 20;
// The sum that report_server.h states, for four threads, and room for what an allocator keeps.
constexpr std::size_t boundBytes = 200 * 32 * 1024 + 16 * MiB + 4 * 9 * MiB + 8 * MiB;

const std::string postHead = "POST / HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";

std::string Repeated(std::string_view piece, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += piece;
  return text;
}

class HostileClients : public testing::Test {
 protected:
  HostileClients() {
    ExpectServed(8);
    startBytes_ = PeakBytes();
  }

  tests::Server Limited(const char* out, const char* requestSeconds) const {
    return tests::Server({"--out", folder_ / out, "--connections", "200", "--body-limit", "1",
                          "--body-memory", "16", "--request-time", requestSeconds});
  }
  static std::uint16_t PortOf(const tests::Server& server) {
    return static_cast<std::uint16_t>(std::stoi(server.Url().substr(server.Url().rfind(':') + 1)));
  }
  // The most that the server has ever had in memory.
  std::size_t PeakBytes() const {
    const std::string status = tests::ReadFile("/proc/" + std::to_string(server_.Id()) + "/status");
    return std::stoul(status.substr(status.find("VmHWM:") + 6)) * 1024;
  }
  void ExpectBounded() const {
    const std::size_t grown = PeakBytes() - startBytes_;
    std::printf("the server has grown by %zu KiB, the bound is %zu\n", grown / 1024, boundBytes / 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // memory has another meaning there
    EXPECT_LE(grown, boundBytes);
#endif
  }
  void ExpectServed(int count) const {
    for (int i = 0; i < count; ++i) {
      const RawAnswer answer = Exchange(port_, Post(exampleBody));
      ASSERT_EQ(answer.status, 200) << answer.text;
    }
  }

  const tests::TemporaryFolder folder_;
  // Time doesn't help this one: it is longer than any client of these waits.
  const tests::Server server_ = Limited("out", "600");
  const std::uint16_t port_ = PortOf(server_);
  std::size_t startBytes_ = 0;
};

TEST_F(HostileClients, IsAnsweredOrCut) {
  const std::string length = postHead + "Content-Length: ";
  const std::string atLimit = std::string(exampleBody) + std::string(MiB - exampleBody.size(), ' ');
  const char* const gzip = "application/json\r\nContent-Encoding: gzip";
  const char* const zstd = "application/json\r\nContent-Encoding: zstd";
  const std::string inChunks = postHead + "Transfer-Encoding: chunked\r\n\r\n";
  struct Case {
    const char* what;
    std::string begin, more;   // `more` comes again and again, until the server ends it
    std::vector<int> answers;  // 0: cut
  };
  const auto expectEnd = [](std::uint16_t port, const Case& each) {
    const RawAnswer answer = Exchange(port, each.begin, each.more);
    EXPECT_TRUE(answer.hasEnded) << each.what << " is neither answered nor cut";
    EXPECT_NE(std::find(each.answers.begin(), each.answers.end(), answer.status), each.answers.end())
        << each.what << ": " << answer.status << " " << answer.text.substr(0, 300);
  };
  // A server that cuts whom it has to wait for.
  const tests::Server impatient = Limited("impatient", "1");
  const Case waiting[] = {
      {"nothing", "", "", {0}},
      {"half of the headers, then nothing", "POST / HTTP/1.1\r\nHo", "", {0}},
      {"slow headers", "POST / HTTP/1.1\r\n", "A: b\r\n", {0, 431}},
      {"a slow line", "POST /", "a", {0, 414}},
      {"a slow body", length + "1000000\r\n\r\n", "x", {0}},
      {"a slow body in chunks", inChunks, "1\r\nx\r\n", {0}},
      {"a body that stops", length + "1000\r\n\r\n{", "", {0}},
      {"a chunk of 2^63 bytes", inChunks + "8000000000000000\r\n", "x", {0, 400, 413}},
  };
  for (const Case& each : waiting) expectEnd(PortOf(impatient), each);

  const Case cases[] = {
      {"endless headers", "POST / HTTP/1.1\r\n" + Repeated("Name: value\r\n", 100'000), "", {0, 431}},
      {"an endless header", "POST / HTTP/1.1\r\nName: " + std::string(MiB, 'x'), "", {0, 431}},
      {"an endless line", "POST /" + std::string(MiB, 'x'), "", {0, 414}},
      {"a length below the body's", length + "10\r\n\r\n" + std::string(exampleBody) + "\r\n\r\n", "", {400}},
      {"a negative length", length + "-1\r\n\r\n{}", "", {400}},
      {"a length beyond all numbers", length + std::string(40, '9') + "\r\n\r\n{}", "", {400, 413}},
      {"a length of 2^63", length + "9223372036854775808\r\n\r\n{}", "", {413}},
      {"chunk sizes that aren't", inChunks + "zz\r\nxx\r\n", "", {400}},
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
      {"a bomb", Post(server_test::Gzip(std::string(200 * MiB, ' ')), gzip), "", {413}},
      {"a denser bomb", Post(server_test::Zstd(std::string(200 * MiB, ' ')), zstd), "", {413}},
      {"many items", Post(Body("{\"array\":[" + Repeated("{},", 200'000) + "{}]}")), "", {200}},
  };
  for (const Case& each : cases) {
    expectEnd(port_, each);
    ExpectServed(1);
  }
  ExpectBounded();
}

// Each crowd is many times what the server takes at once.
TEST_F(HostileClients, CrowdsKeepNobodyOutAndTakeBoundedMemory) {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  if (files.rlim_cur < 2000) GTEST_SKIP() << "this process may have too few files";

  const std::string body = postHead + "Content-Length: 1048576\r\n\r\n";
  const struct {
    const char* what;
    std::size_t count;
    std::string text;
  } crowds[] = {
      {"idle", 1000, ""},
      {"half of the headers", 400, "POST / HTTP/1.1\r\nName: " + std::string(20'000, 'x')},
      {"half-sent bodies", 150, body + std::string(MiB - 1, ' ')},
      {"lengths only claimed", 150, body + "{"},
  };
  std::vector<int> held;
  // Another client's, which waits longest of all.
  const std::string slow = Post(exampleBody);
  const int other = server_test::Connect(port_, "127.0.0.2");
  std::size_t sent = 0;
  const auto sendOn = [&](std::size_t count) {
    server_test::SendAll(other, slow.substr(sent, count));
    sent += count;
  };
  for (const auto& crowd : crowds) {
    SCOPED_TRACE(crowd.what);
    for (std::size_t i = 0; i < crowd.count && !HasFatalFailure(); ++i) {
      held.push_back(server_test::Connect(port_));
      ASSERT_GE(held.back(), 0);
      server_test::SendAll(held.back(), crowd.text);
      if (i % 50 != 49) continue;
      ExpectServed(1);
      sendOn(1);  // or it would be cut as silent
    }
    ExpectServed(5);
  }
  ExpectBounded();
  sendOn(slow.size());
  EXPECT_EQ(server_test::Receive(other).status, 200);
  close(other);
  for (const int handle : held) close(handle);
}

}  // namespace
}  // namespace veld_report::server
