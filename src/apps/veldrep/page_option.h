// The options --page and --page-token of serve.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "server/page/page_server.h"

namespace veld_report::app {

struct PageOptions {
  CLI::Option* given = nullptr;
  CLI::Option* tokenGiven = nullptr;
  std::string page;
  std::string token;  // as it was given
};

// Adds both to the command, which fills the returned options.
std::shared_ptr<PageOptions> AddPageOptions(CLI::App& command);

// Whether a page is wanted, and then where; with a socket in `options` it is, and the address may be empty.
// Throws WrongCommandLine and, for a file with the token, Failure.
bool ReadPageOptions(const PageOptions& given, server::PageServerOptions* options);

}  // namespace veld_report::app
