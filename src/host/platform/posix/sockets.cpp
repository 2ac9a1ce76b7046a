#include "host/platform/sockets.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace veld_report::host {

void PrepareSocket(std::intptr_t socket) noexcept {
  const int descriptor = static_cast<int>(socket);
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  constexpr int maxUnsentBytes = 64 << 10;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &maxUnsentBytes, sizeof maxUnsentBytes);
}

}  // namespace veld_report::host
