// What tests of the whole host share: a folder of their own, and report servers that store into it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/scripted_server.h"
#ifdef _WIN32
#include "tests/windows/report_server.h"
#else
#include "server/report_server.h"
#endif

namespace veld_report::tests {

class ServingTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return (folder_.Path() / name).string(); }
  std::unique_ptr<server::ReportServer> Serve(const std::string& file, std::uint16_t port = 0) const {
#ifdef _WIN32
    return std::make_unique<server::ReportServer>(Path(file), port);
#else
    server::ReportServerOptions options;
    options.port = port;
    options.sinks = {{Path(file)}};
    return std::make_unique<server::ReportServer>(std::move(options));
#endif
  }
  std::vector<std::string> Stored(const std::string& file) const { return ReadLines(Path(file)); }
  static ScriptedReply NeverAnswers(const ScriptedRequest&) { return {"", ScriptedReply::never}; }

 private:
  const TemporaryFolder folder_;
};

}  // namespace veld_report::tests
