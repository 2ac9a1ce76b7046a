// The options of a daemon of the HTTP library that shows the process's certificate.
#pragma once

#include <microhttpd.h>

#include <array>

#include "server/tls_certificate.h"

namespace veld_report::server {

// How the threads of the daemon wait. With TLS they poll: with epoll the library runs in circles, and takes a
// whole core, from the first byte of a handshake until the client has sent the rest.
constexpr unsigned WaitingFlags(bool isTls) {
  return isTls ? MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_TLS : MHD_USE_EPOLL_INTERNAL_THREAD;
}

// For MHD_OPTION_ARRAY, beside those flags. Without TLS it is empty: the library takes these for a
// daemon with TLS only.
inline std::array<MHD_OptionItem, 3> TlsOptions(bool isTls) {
  constexpr MHD_OptionItem end{MHD_OPTION_END, 0, nullptr};
  if (!isTls) return {end, end, end};
  return {MHD_OptionItem{MHD_OPTION_HTTPS_CERT_CALLBACK, 0, TlsCertificate::Callback()},
          MHD_OptionItem{MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(TlsCertificate::priorities)}, end};
}

}  // namespace veld_report::server
