// What the tests of the reporter share: a store in a folder of its own, report servers, programs to run.
#pragma once

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "server/report_server.h"
#include "tests/host/scripted_server.h"
#include "tests/host/temporary_folder.h"
#include "veld_report/reporter.h"

extern char** environ;

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
  std::vector<std::string> Stored(const std::string& file) const {
    std::ifstream stream(folder_.Path() / file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }
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

// Runs a program to its end. Returns its exit code, -1 if it couldn't be started or didn't end by itself, and
// then it is ended.
inline int RunProgram(const std::vector<std::string>& arguments, seconds limit) {
  std::vector<char*> raw;
  for (const std::string& argument : arguments) raw.push_back(const_cast<char*>(argument.c_str()));
  raw.push_back(nullptr);
  pid_t process = 0;
  if (::posix_spawnp(&process, raw[0], nullptr, nullptr, raw.data(), environ) != 0) return -1;
  const auto end = steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(process, &status, WNOHANG) == 0) {
    if (steady_clock::now() > end) {
      ::kill(process, SIGKILL);
      ::waitpid(process, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(milliseconds(10));  // another process gives no condition to wait on
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace veld_report
