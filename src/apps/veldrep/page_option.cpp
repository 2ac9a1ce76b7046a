#include "apps/veldrep/page_option.h"

#include <algorithm>

#include "apps/veldrep/address_option.h"
#include "apps/veldrep/command.h"

namespace veld_report::app {
namespace {

constexpr std::size_t minTokenCharacters = 8;

// The token itself, or the first line of the file after "@".
std::string ReadToken(const std::string& given) {
  const bool isFile = given.starts_with('@');
  std::string token = isFile ? ReadWhole(given.substr(1)) : given;
  token.erase(std::min(token.find_first_of("\r\n"), token.size()));
  const bool visible =
      std::all_of(token.begin(), token.end(), [](char each) { return each > ' ' && each < 0x7f; });
  if (token.size() < minTokenCharacters || !visible)
    throw WrongCommandLine("--page-token: a token has " + std::to_string(minTokenCharacters) +
                           " characters or more, letters, digits and signs without blanks" +
                           (isFile ? "; that of " + given.substr(1) + " hasn't" : ""));
  return token;
}

}  // namespace

std::shared_ptr<PageOptions> AddPageOptions(CLI::App& command) {
  auto options = std::make_shared<PageOptions>();
  options->given = command
                       .add_option("--page", options->page,
                                   "show what arrives to browsers there, with /metrics, /healthz and "
                                   "/readyz; a bare port is one of "
                                   "127.0.0.1, and without a value it is a free one of it")
                       ->type_name("[ADDRESS:]PORT")
                       ->expected(0, 1);
  options->tokenGiven =
      command
          .add_option("--page-token", options->token,
                      "what the page asks for, or @FILE with it in the first line; necessary beyond loopback")
          ->type_name("TOKEN");
  return options;
}

bool ReadPageOptions(const PageOptions& given, server::PageServerOptions* options) {
  // An empty one is refused below: a variable that isn't set must not open the page.
  const bool hasToken = given.tokenGiven->count() != 0;
  if (given.given->count() == 0 && options->listening < 0) {
    if (hasToken) throw WrongCommandLine("--page-token is for the page: give --page too");
    return false;
  }
  const AddressOption anywhere{options->listening >= 0 ? "" : "127.0.0.1"};
  const AddressOption parsed =
      given.page.empty() ? anywhere : ParseAddress("--page", given.page, "127.0.0.1");
  options->address = parsed.address;
  options->port = parsed.port;
  if (hasToken) options->token = ReadToken(given.token);
  return true;
}

}  // namespace veld_report::app
