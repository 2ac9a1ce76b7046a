// veldrep pin: what to put into an endpoint's certificates to trust one server's key.
#include <cstdio>
#include <memory>

#include "apps/veldrep/command.h"
#include "host/base/printable.h"
#include "host/base/redact.h"
#include "host/http/server_keys.h"

namespace veld_report::app {
namespace {

int PrintPins(const std::string& url) {
  constexpr std::chrono::seconds timeout(10);
  host::ServerKeys keys;
  try {
    keys = host::ReadServerKeys(url, timeout);
  } catch (const std::runtime_error& error) {
    throw Failure(host::WithoutCredentials(url), error.what());
  }
  for (std::size_t i = 0; i < keys.chain.size(); ++i) {
    std::printf("%s  %s: %s\n", keys.chain[i].pin.c_str(), i == 0 ? "server" : "authority",
                host::WithoutControls(keys.chain[i].subject).c_str());
  }
  if (!keys.distrust.empty()) {
    Complain(host::WithoutCredentials(url) + ": this machine doesn't trust it (" +
             host::WithoutControls(keys.distrust) + "); compare the pin with the owner's before you use it");
  }
  return exitOk;
}

}  // namespace

Command MakePinCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand("pin", "Prints the pins of a server's keys.");
  const auto url = std::make_shared<std::string>();
  command->add_option("URL", *url, "https://HOST[:PORT]")->required();
  command->footer(
      "Prints a line for each certificate that the server sends, its own first. Its pin can be one of the\n"
      "certificates of an endpoint. The others are its authorities', for comparison.\n"
      "Example: veldrep pin https://stats.example.com");
  return {command, [url] { return PrintPins(*url); }};
}

}  // namespace veld_report::app
