#include "tests/common/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "tests/common/waiting.h"

namespace veld_report::tests {

Program::Program(std::vector<std::string> arguments, const std::string& workingFolder) {
  // A program that has ended must not end the test that still feeds it.
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::vector<char*> pointers;
  for (std::string& each : arguments) pointers.push_back(each.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  const std::string output = folder_ / "out", errors = folder_ / "err";
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), flags, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), flags, 0600);
  if (!workingFolder.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingFolder.c_str());
  const int code = posix_spawnp(&process_, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[0]);
  input_ = ends[1];
  if (code == 0) return;
  EndInput();
  throw std::runtime_error("can't start " + arguments[0]);
}

Program::~Program() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  EndInput();
}

void Program::Feed(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(input_, text.data(), text.size());
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Program::EndInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

void Program::Kill() { Signal(SIGKILL); }

void Program::Signal(int number) {
  if (process_ > 0) kill(process_, number);
}

bool Program::HasEnded() const {
  siginfo_t ended{};
  return process_ < 0 ||
         waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         ended.si_pid != 0;
}

int Program::Wait(std::chrono::seconds limit) {
  EndInput();
  int status = 0;
  if (!Eventually([&] { return waitpid(process_, &status, WNOHANG) != 0; }, limit)) {
    throw std::runtime_error("the program doesn't end");
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace veld_report::tests
