// Asks a server for its certificates, to make pins of their keys.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace veld_report::host {

struct ServerKeys {
  struct Key {
    std::string pin;      // "sha256//BASE64" of its SubjectPublicKeyInfo
    std::string subject;  // of the certificate, as in RFC 2253
  };
  std::vector<Key> chain;  // the server's own first, then its authorities', as far as it sends them
  std::string distrust;    // why this machine doesn't trust it, a phrase; empty: it does
};

// Connects to an https:// url, through the proxy of the environment if there is one, and sends no request. A
// server that isn't trusted answers too. Throws std::runtime_error with a phrase: no answer in time, not
// https, no TLS. It initialises libcurl, so no other thread may be about to do so.
ServerKeys ReadServerKeys(const std::string& url, std::chrono::milliseconds timeout);

}  // namespace veld_report::host
