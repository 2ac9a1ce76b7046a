#include "server/peer_name.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>

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

std::string ClientAddress(const sockaddr* peer) {
  char text[INET6_ADDRSTRLEN] = "";
  if (!peer || peer->sa_family != AF_INET6) {
    const std::string name = PeerName(peer);
    return name.substr(0, name.rfind(':'));
  }
  in6_addr network = reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr;
  if (IN6_IS_ADDR_V4MAPPED(&network))
    return inet_ntop(AF_INET, network.s6_addr + 12, text, sizeof text) ? text : "unknown";
  std::fill_n(network.s6_addr + 8, 8, std::uint8_t{0});
  inet_ntop(AF_INET6, &network, text, sizeof text);
  return "[" + std::string(text) + "]/64";
}

}  // namespace veld_report::server
