// TlsCertificate: the certificate and private key that a server shows, from files that can be read again.
//
// The HTTP library asks for it at each handshake through a function without a context, so a process can have
// one only. Connections that are open keep what they have agreed upon.
#pragma once

#include <memory>
#include <string>

namespace veld_report::server {

// Threads: any.
class TlsCertificate {
 public:
  // Files in PEM form; the first begins with the server's certificate, and those that it was signed with
  // follow. Throws std::runtime_error with a sentence that begins with the path; also if the process has one
  // already.
  TlsCertificate(std::string certificatePath, std::string keyPath);
  // Only once no handshake is in progress.
  ~TlsCertificate();
  TlsCertificate(const TlsCertificate&) = delete;
  TlsCertificate& operator=(const TlsCertificate&) = delete;

  // Reads both files again. Throws like the constructor; then the former ones stay in use.
  void Reload();

  // What MHD_OPTION_HTTPS_CERT_CALLBACK takes: a gnutls_certificate_retrieve_function2.
  static void* Callback();
  // TLS 1.2 and later.
  static constexpr char priorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:%SERVER_PRECEDENCE";

 private:
  class Files;
  std::unique_ptr<Files> files_;
};

}  // namespace veld_report::server
