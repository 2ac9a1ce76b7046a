#include "server/peer_name.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace veld_report::server {

std::string PeerName(const sockaddr* peer) {
  char text[INET6_ADDRSTRLEN] = "";
  if (peer && peer->sa_family == AF_INET) {
    const auto* const address = reinterpret_cast<const sockaddr_in*>(peer);
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address->sin_port));
  }
  if (peer && peer->sa_family == AF_INET6) {
    const auto* const address = reinterpret_cast<const sockaddr_in6*>(peer);
    inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(address->sin6_port));
  }
  return "unknown";
}

}  // namespace veld_report::server
