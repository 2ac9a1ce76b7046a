// veldrep serve: the report server in the foreground, until SIGTERM or SIGINT.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "apps/veldrep/command.h"
#include "apps/veldrep/ending_signals.h"
#include "apps/veldrep/serve_check.h"
#include "apps/veldrep/serve_log.h"
#include "apps/veldrep/serve_options.h"
#include "apps/veldrep/service_manager.h"
#include "server/page/page_server.h"
#include "server/report_server.h"

namespace veld_report::app {
namespace {

int Serve(ServeOptions& given) {
  if (given.checkOnly) return CheckServe(given);
  const ServiceManager manager;
  given.sockets = manager.Sockets();
  ServeSettings settings = ReadServeOptions(given, [](const std::function<void()>& step) { step(); });
  const EndingSignals ending;

  const auto log = std::make_shared<ServeLog>(STDERR_FILENO);
  settings.report.log = [log](const std::string& sentence) { log->Write(sentence); };
  const auto logProblem = [&log](const std::string& sentence) {
    if (!sentence.empty()) log->Write(sentence);
  };
  std::optional<server::PageWatch> watch;
  if (settings.page) settings.report.observer = &watch.emplace();

  server::ReportServer server(std::move(settings.report));
  std::optional<server::PageServer> page;
  if (watch) logProblem(page.emplace(*settings.page, server, *watch).Warning());
  std::printf("listening on %s\n%s\n%s", server.Url().c_str(), DescribeKeys(settings.keys).c_str(),
              page ? ("page on " + page->Url() + "\n").c_str() : "");
  std::fflush(stdout);
  logProblem(manager.Ready(server.Url()));
  ending.Wait([&] {
    logProblem(manager.Reloading());
    server.ReopenSinks();
    server.ReloadCertificate();
    logProblem(manager.Ready(server.Url()));
  });
  logProblem(manager.Stopping());
  server.Stop();
  const std::uint64_t cut = server.CutConnections();
  std::printf("stopped: stored %llu, repeated %llu, %llu requests refused%s\n",
              static_cast<unsigned long long>(server.StoredItems()),
              static_cast<unsigned long long>(server.RepeatedItems()),
              static_cast<unsigned long long>(server.RefusedRequests()),
              cut == 0 ? "" : (", " + std::to_string(cut) + " connections cut").c_str());
  return exitOk;
}

}  // namespace

Command MakeServeCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand(
      "serve", "Receives report messages over HTTP, checks every layer and stores their items.");
  const auto options = std::make_shared<ServeOptions>();
  AddServeOptions(command, options.get());
  command->footer(
      "Prints \"listening on http://ADDRESS:PORT\" when it is ready. SIGTERM or Ctrl-C stops it; on SIGHUP "
      "it "
      "opens FILE anew.\n"
      "Example: veldrep serve --listen 127.0.0.1:8080 --out reports.ndjson --key product.pub.pem");
  return {command, [options] { return Serve(*options); }};
}

}  // namespace veld_report::app
