// What the tests of the reporter share: a store in a folder of its own, report servers, programs to run.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "server/report_server.h"
#include "tests/common/files.h"
#include "tests/common/program.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/scripted_server.h"
#include "veld_report/reporter.h"

namespace veld_report {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class ReporterTest : public testing::Test {
 protected:
  ReporterOptions Options(std::vector<Endpoint> endpoints, const std::string& store = "store") {
    ReporterOptions options;
    options.modulePath = VELD_MODULE_PATH;
    options.store = Path(store);
    options.endpoints = std::move(endpoints);
    options.closeDeadline = milliseconds(0);
    return options;
  }
  std::string Path(const std::string& name) const { return (folder_.Path() / name).string(); }
  std::unique_ptr<server::ReportServer> Serve(const std::string& file, std::uint16_t port = 0) {
    server::ReportServerOptions options;
    options.port = port;
    options.outPath = Path(file);
    return std::make_unique<server::ReportServer>(std::move(options));
  }
  std::vector<std::string> Stored(const std::string& file) const { return tests::ReadLines(Path(file)); }
  static tests::ScriptedReply NeverAnswers(const tests::ScriptedRequest&) {
    return {"", tests::ScriptedReply::never};
  }
  // A header, and then for ever a byte of the content now and then.
  static tests::ScriptedReply Trickles(const tests::ScriptedRequest&) {
    return {"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n", tests::ScriptedReply::endless,
            milliseconds(20)};
  }

  const tests::TemporaryFolder folder_;
};

template <class Body>
milliseconds TimeOf(Body&& body) {
  const auto begin = steady_clock::now();
  body();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
}

}  // namespace veld_report
