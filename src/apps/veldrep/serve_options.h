// The options of veldrep serve, and what becomes of them.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/veldrep/address_option.h"
#include "apps/veldrep/key_option.h"
#include "apps/veldrep/out_options.h"
#include "apps/veldrep/page_option.h"
#include "apps/veldrep/service_manager.h"
#include "server/page/page_server.h"
#include "server/report_server.h"

namespace veld_report::app {

// As they were given.
struct ServeOptions {
  std::string listen = "127.0.0.1:0";
  OutOptions out;
  std::vector<std::string> keys;
  std::string certificate, certificateKey;
  std::string capture;
  unsigned status = 200;
  std::size_t bodyLimitMiB = 16;
  std::size_t bodyMemoryMiB = 256;
  unsigned connections = 512;
  unsigned requestSeconds = 60;
  unsigned rate = 0, rateBurst = 0;
  unsigned threads = 4;
  std::shared_ptr<PageOptions> page;
  bool checkOnly = false;
  CLI::Option* listenGiven = nullptr;
  PassedSockets sockets;  // not an option; in place of opening some
};

// What the servers take.
struct ServeSettings {
  server::ReportServerOptions report;  // without log and observer
  std::optional<server::PageServerOptions> page;
  KeyRing keys;
};

// Runs one step of reading the options, each of which may throw.
using Attempt = std::function<void(const std::function<void()>&)>;

// `options` must outlive the command.
void AddServeOptions(CLI::App* command, ServeOptions* options);

// Raises the limit of open files if it is too low for the connections. `attempt` runs each step; if it lets
// exceptions pass, they are WrongCommandLine, and std::runtime_error for files that can't be read.
ServeSettings ReadServeOptions(const ServeOptions& given, const Attempt& attempt);

}  // namespace veld_report::app
