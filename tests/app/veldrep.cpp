#include "tests/app/veldrep.h"

#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::app_test {
namespace {

std::vector<std::string> Prefixed(const std::string& first, const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {first};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

}  // namespace

std::vector<std::string> VeldrepArguments(const std::vector<std::string>& arguments) {
  return Prefixed(VELDREP_PATH, arguments);
}

tests::ProgramResult Veldrep(const std::vector<std::string>& arguments, std::string_view input) {
  return tests::RunProgram(VeldrepArguments(arguments), input);
}

Server::Server(const std::vector<std::string>& arguments, const std::string& workingFolder)
    : program_(VeldrepArguments(Prefixed("serve", arguments)), workingFolder) {
  const std::string announcement = "listening on ";
  if (!tests::Eventually([&] { return program_.Output().ends_with("\n"); })) {
    throw std::runtime_error("serve doesn't get ready: " + program_.Errors());
  }
  url_ = program_.Output().substr(announcement.size());
  url_.pop_back();
}

}  // namespace veld_report::app_test
