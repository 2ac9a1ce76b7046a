// The options of a daemon of the HTTP library that shows the process's certificate.
#pragma once

#include <microhttpd.h>

#include <array>

#include "server/tls_certificate.h"

namespace veld_report::server {

// For MHD_OPTION_ARRAY, beside the flag MHD_USE_TLS. Without TLS it is empty: the library takes these for a
// daemon with TLS only.
inline std::array<MHD_OptionItem, 3> TlsOptions(bool isTls) {
  constexpr MHD_OptionItem end{MHD_OPTION_END, 0, nullptr};
  if (!isTls) return {end, end, end};
  return {MHD_OptionItem{MHD_OPTION_HTTPS_CERT_CALLBACK, 0, TlsCertificate::Callback()},
          MHD_OptionItem{MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(TlsCertificate::priorities)}, end};
}

}  // namespace veld_report::server
