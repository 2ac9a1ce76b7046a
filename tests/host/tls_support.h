// The server's side of TLS.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace veld_report::tests {

// `pem`: file of its private key and its certificate. `newest`: of the TLS versions that it speaks, such as
// TLS1_2_VERSION.
std::shared_ptr<SSL_CTX> ServerContext(const std::string& pem, int newest = TLS1_3_VERSION);

}  // namespace veld_report::tests
