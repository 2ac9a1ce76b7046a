// A program whose reporter is a static object: MODULE STORE URL DEADLINE_MS ["fork"]. With "fork" a child
// ends by exit, which runs the destructors of static objects, and the program exits with what the child has.
// Run by the reporter's tests.
#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <cstdlib>

#include "veld_report/reporter.h"

namespace {

// Ends after the function that made it static, and before an older one.
struct SendsAtTheEnd {
  veld_report::Reporter& reporter;
  ~SendsAtTheEnd() { reporter.TrySendJson(R"({"from":"a static destructor"})"); }
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount < 5) return 2;
  veld_report::ReporterOptions options;
  options.modulePath = arguments[1];
  options.store = arguments[2];
  options.endpoints = {{arguments[3]}};
  options.closeDeadline = std::chrono::milliseconds(std::atoi(arguments[4]));
  static veld_report::Reporter reporter(options);
  static const SendsAtTheEnd last{reporter};
  reporter.SendJson(R"({"from":"main"})");
#ifdef _WIN32
  return 0;
#else
  if (argumentCount == 5) return 0;
  const pid_t child = fork();
  if (child == 0) std::exit(reporter.TrySendJson("{}") == zel::eInvalidState ? 0 : 3);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 4;
#endif
}
