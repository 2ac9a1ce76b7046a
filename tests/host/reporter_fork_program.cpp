// A program with a static reporter that forks: MODULE STORE URL. Its child ends by exit, which runs the
// destructors of static objects. Exits with what the child exited with. Run by reporter_fork_test.cpp.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "veld_report/reporter.h"

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4) return 2;
  veld_report::ReporterOptions options;
  options.modulePath = arguments[1];
  options.store = arguments[2];
  options.endpoints = {{arguments[3]}};
  options.closeDeadline = std::chrono::seconds(20);
  static veld_report::Reporter reporter(options);
  reporter.SendJson(R"({"from":"the parent"})");
  const pid_t child = fork();
  if (child == 0) std::exit(reporter.TrySendJson("{}") == zel::eInvalidState ? 0 : 3);
  int status = 0;
  if (waitpid(child, &status, 0) != child) return 4;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 5;
}
