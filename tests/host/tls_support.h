// Keys and certificates made on the spot, and the server's side of TLS with them.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace veld_report::tests {

// A key with its certificate. A copy shares both.
class TestCertificate {
 public:
  // Signs itself.
  static TestCertificate Authority(const std::string& name);
  // For 127.0.0.1, signed by the authority.
  static TestCertificate Server(const TestCertificate& authority);

  std::string Pem() const;
  // "sha256//..." of the public key.
  std::string Pin() const;
  // The name under which OpenSSL looks for it in a folder.
  std::string HashedName() const;

  EVP_PKEY* Key() const { return key_.get(); }
  X509* Certificate() const { return certificate_.get(); }

 private:
  TestCertificate(const std::string& subject, const TestCertificate* authority);

  std::shared_ptr<EVP_PKEY> key_;
  std::shared_ptr<X509> certificate_;
};

// A server that shows this certificate. `newest`: of the TLS versions that it speaks, such as TLS1_2_VERSION.
std::shared_ptr<SSL_CTX> ServerContext(const TestCertificate& certificate, int newest = TLS1_3_VERSION);

}  // namespace veld_report::tests
