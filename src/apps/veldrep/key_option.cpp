#include "apps/veldrep/key_option.h"

#include <memory>

#include "host/signature/ed25519_verifier.h"

namespace veld_report::app {

server::SignatureVerifier VerifierFromFile(const std::string& path) {
  const auto verifier = std::make_shared<host::Ed25519Verifier>(host::Ed25519Key::PublicFromFile(path));
  return [verifier](std::string_view payload, std::string_view block) {
    return verifier->Check(payload, block);
  };
}

}  // namespace veld_report::app
