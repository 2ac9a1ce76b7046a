#include "apps/veldrep/serve_check.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <set>
#include <stdexcept>
#include <string>

#include "apps/veldrep/command.h"
#include "server/listen_socket.h"
#include "server/open_sink.h"
#include "server/sink_check.h"
#include "server/tls_certificate.h"

namespace veld_report::app {

int CheckServe(const ServeOptions& given) {
  int exitCode = exitOk;
  const auto attempt = [&](const std::function<void()>& step) {
    try {
      step();
    } catch (const WrongCommandLine& error) {
      Complain(std::string(error.what()) + " (see veldrep serve --help)");
      exitCode = exitWrongCommandLine;
    } catch (const std::exception& error) {
      Complain(error.what());
      exitCode = std::max<int>(exitCode, exitFailed);
    }
  };
  const ServeSettings settings = ReadServeOptions(given, attempt);
  const server::ReportServerOptions& report = settings.report;
  attempt([&] { server::FindListenAddress(report.address, report.port); });
  if (!report.certificatePath.empty())
    attempt([&] { const server::TlsCertificate pair(report.certificatePath, report.certificateKeyPath); });
  std::set<std::string> sinks;
  for (const server::SinkOptions& each : report.sinks) {
    attempt([&] {
      if (!sinks.insert(each.out).second)
        throw std::runtime_error(server::DisplayName(each.out) + " is given twice");
      server::CheckSink(each.out);
    });
  }
  if (!report.capturePath.empty()) attempt([&] { server::CheckFolder(report.capturePath); });
  if (settings.page) attempt([&] { server::CheckPageAddress(*settings.page); });
  if (exitCode == exitOk) std::puts("good");
  return exitCode;
}

}  // namespace veld_report::app
