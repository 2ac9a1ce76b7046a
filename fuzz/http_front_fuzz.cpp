// The report server over a real connection. The first byte of an input chooses what the rest is: raw bytes, a
// body after valid headers, a payload to be wrapped into a message, or a chunked body. The server must soon
// answer with a status or close the connection, and must count what it stored.
#include <charconv>
#include <chrono>

#include "fuzz/input.h"
#include "server/report_server.h"
#include "tests/common/temporary_folder.h"
#include "tests/server/message_builder.h"
#include "tests/server/raw_client.h"

namespace {

using namespace veld_report;
using fuzz::Input;
using fuzz::Require;

struct Running {
  tests::TemporaryFolder folder;
  server::ReportServer server;

  Running() : server(Options(folder.Path() / "out.ndjson")) {}
  static server::ReportServerOptions Options(const std::string& out) {
    server::ReportServerOptions options;
    options.outPath = out;
    options.bodyLimitBytes = 1 << 16;
    options.threads = 1;
    options.requestTime = std::chrono::milliseconds(20);  // for inputs that end half-way
    return options;
  }
};

std::string Request(Input& in) {
  const std::size_t kind = in.Below(4);
  if (kind == 0) {
    const std::string ending = in.OneIn(8) ? "" : "\r\n\r\n";
    return std::string(in.Rest()) + ending;
  }
  if (kind == 1) return server_test::Post(in.Rest());
  if (kind == 2) return server_test::Post(server_test::Body(in.Rest()));
  std::string request =
      "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: application/json\r\n"
      "Transfer-Encoding: chunked\r\n\r\n";
  const std::string body =
      in.OneIn(2) ? server_test::Body(in.Bytes(in.Below(200))) : std::string(in.Bytes(200));
  for (std::size_t at = 0; at < body.size();) {
    const std::string piece = body.substr(at, in.Below(100) + 1);
    char length[20];
    *std::to_chars(length, length + 19, piece.size(), 16).ptr = '\0';
    request += length + ("\r\n" + piece + "\r\n");
    at += piece.size();
  }
  return request + (in.OneIn(16) ? std::string(in.Rest()) : "0\r\n\r\n");
}

// The sum of "N items stored" over all answers 200.
std::uint64_t StoredByAnswers(std::string_view answers) {
  std::uint64_t sum = 0;
  for (std::size_t at = 0; (at = answers.find(" items stored\n", at)) != std::string_view::npos; ++at) {
    std::uint64_t one = 0;
    const std::size_t begin = answers.rfind('\n', at) + 1;
    std::from_chars(answers.data() + begin, answers.data() + at, one);
    sum += one;
  }
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Running running;
  Input in(data, size);
  const std::uint64_t before = running.server.StoredItems();
  const auto start = std::chrono::steady_clock::now();
  const auto answer =
      server_test::Exchange(running.server.Port(), Request(in), server_test::AfterSending::close);
  Require(std::chrono::steady_clock::now() - start < std::chrono::seconds(5), "neither answered nor closed");
  Require(answer.text.empty() || answer.status != 0, "something else than an answer: " + answer.text);
  Require(running.server.StoredItems() - before == StoredByAnswers(answer.text),
          "the items that were stored and those that were answered differ");
  return 0;
}
