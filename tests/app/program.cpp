#include "tests/app/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace veld_report::app_test {
namespace {

std::filesystem::path MakeFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "veldrep-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
  return pattern;
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments) : folder_(MakeFolder()) {
  // A program that has ended must not end the test that still feeds it.
  std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::vector<char*> pointers = {const_cast<char*>(VELDREP_PATH)};
  for (const std::string& each : arguments) pointers.push_back(const_cast<char*>(each.c_str()));
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  const std::string output = folder_ / "out", errors = folder_ / "err";
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), flags, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), flags, 0600);
  const int code = posix_spawn(&process_, VELDREP_PATH, &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[0]);
  input_ = ends[1];
  if (code != 0) throw std::runtime_error("can't start " VELDREP_PATH);
}

Program::~Program() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  EndInput();
  std::filesystem::remove_all(folder_);
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

void Program::Signal(int number) {
  if (process_ > 0) kill(process_, number);
}

int Program::Wait() {
  EndInput();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  int status = 0;
  while (waitpid(process_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the program doesn't end");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string Program::Output() const { return ReadFile(folder_ / "out"); }
std::string Program::Errors() const { return ReadFile(folder_ / "err"); }

Result Veldrep(const std::vector<std::string>& arguments, std::string_view input) {
  Program program(arguments);
  program.Feed(input);
  const int exitCode = program.Wait();
  return {exitCode, program.Output(), program.Errors()};
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

namespace {

std::vector<std::string> ServeArguments(const std::filesystem::path& out,
                                        const std::vector<std::string>& more, int port) {
  std::vector<std::string> arguments = {"serve", "--out", out, "--listen",
                                        "127.0.0.1:" + std::to_string(port)};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace

Server::Server(const std::filesystem::path& out, const std::vector<std::string>& more, int port)
    : program_(ServeArguments(out, more, port)) {
  const std::string announcement = "listening on ";
  if (!Eventually([&] { return program_.Output().ends_with("\n"); })) {
    throw std::runtime_error("serve doesn't get ready: " + program_.Errors());
  }
  url_ = program_.Output().substr(announcement.size());
  url_.pop_back();
}

int Server::Port() const { return std::atoi(url_.c_str() + url_.rfind(':') + 1); }

TemporaryFolder::TemporaryFolder() : path_(MakeFolder()) {}
TemporaryFolder::~TemporaryFolder() { std::filesystem::remove_all(path_); }

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> Lines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

}  // namespace veld_report::app_test
