#include "tests/host/tls_support.h"

#include <stdexcept>

namespace veld_report::tests {

std::shared_ptr<SSL_CTX> ServerContext(const std::string& pem, int newest) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  // The old versions count as weak, whose use a security level of 0 alone allows.
  if (!context || SSL_CTX_set_cipher_list(context.get(), "DEFAULT@SECLEVEL=0") != 1 ||
      SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context.get(), newest) != 1 ||
      SSL_CTX_use_certificate_file(context.get(), pem.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), pem.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("no TLS with " + pem);
  }
  return context;
}

}  // namespace veld_report::tests
