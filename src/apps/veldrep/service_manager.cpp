#include "apps/veldrep/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>

#include "apps/veldrep/failure.h"

namespace veld_report::app {
namespace {

constexpr int firstDescriptor = 3;

std::string Take(const char* variable) {
  const char* const value = std::getenv(variable);
  std::string text = value ? value : "";
  unsetenv(variable);
  return text;
}

std::optional<int> Number(std::string_view text) {
  int number = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (code != std::errc() || end != text.data() + text.size() || number < 0) return std::nullopt;
  return number;
}

PassedSockets TakeSockets() {
  const std::string process = Take("LISTEN_PID"), count = Take("LISTEN_FDS"), names = Take("LISTEN_FDNAMES");
  // Otherwise they are for a process that started this one.
  if (Number(process) != getpid()) return {};
  const std::optional<int> sockets = Number(count);
  if (!sockets) throw Failure("LISTEN_FDS=" + count, "expected the number of sockets");
  PassedSockets passed;
  std::string_view rest = names;
  for (int each = firstDescriptor; each < firstDescriptor + *sockets; ++each) {
    const std::string_view name = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
    int& place = name == "page" ? passed.page : passed.reports;
    if (place >= 0)
      throw Failure("LISTEN_FDNAMES=" + names,
                    "expected at most one socket for reports and one that is named page");
    place = each;
  }
  return passed;
}

std::string Microseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

ServiceManager::ServiceManager() : sockets_(TakeSockets()), notifyPath_(Take("NOTIFY_SOCKET")) {}

std::string ServiceManager::Ready(const std::string& url) const {
  return Tell("READY=1\nSTATUS=Serving " + url);
}

std::string ServiceManager::Reloading() const {
  return Tell("RELOADING=1\nMONOTONIC_USEC=" + Microseconds() + "\nSTATUS=Opening files anew");
}

std::string ServiceManager::Stopping() const {
  return Tell("STOPPING=1\nSTATUS=Answering the requests that have begun");
}

std::string ServiceManager::Tell(const std::string& state) const {
  if (notifyPath_.empty()) return {};
  const auto failed = [this](const std::string& why) {
    return "NOTIFY_SOCKET=" + notifyPath_ + ": the service manager can't be told: " + why;
  };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool isAbstract = notifyPath_[0] == '@';
  if (!isAbstract && notifyPath_[0] != '/') return failed("expected a path, or @ and a name");
  if (notifyPath_.size() >= sizeof address.sun_path) return failed("the path is too long");
  std::memcpy(address.sun_path, notifyPath_.data(), notifyPath_.size());
  if (isAbstract) address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + notifyPath_.size());
  const int handle = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ssize_t sent = sendto(handle, state.data(), state.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), length);
  std::string why = sent >= 0 ? "" : failed(std::generic_category().message(errno));
  if (handle >= 0) close(handle);
  return why;
}

}  // namespace veld_report::app
