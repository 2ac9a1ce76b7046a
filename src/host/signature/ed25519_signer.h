// Ed25519Signer: the signature provider of the host kit.
//
// The signature block is the JSON header {"alg":"EdDSA","kid":"..."}, a zero byte, and the 64 bytes of the
// signature over the payload text (RFC 8032, the plain form without a context). `kid` is Ed25519Key::KeyId.
// Without a key it is the unsigned block of docs/wire-format.md. A signature proves who made the message; it
// doesn't encrypt.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "contract/signature.h"
#include "host/base/host_object.h"
#include "host/signature/ed25519_key.h"

namespace veld_report::host {

// Threads: any.
class Ed25519Signer final : public HostObject<orvel::ISignatureProvider> {
 public:
  // A key that is ready to sign.
  struct Signing {
    explicit Signing(Ed25519Key key);
    const Ed25519Key key;      // with its private half
    const std::string header;  // including the zero byte
  };

  // Without a key, messages are unsigned.
  explicit Ed25519Signer(std::optional<Ed25519Key> key = {});

  // The next message is signed with it; null: unsigned.
  void SetKey(std::shared_ptr<const Signing> key) noexcept;
  // Returns 0x8000004b "Unspecified error" if OpenSSL can't sign; the message is then sent unsigned.
  zel::ResultCode Sign(const zel::ByteRange* payload, zel::vector_t<std::uint8_t>* signatureBlock) override;

 private:
  std::mutex mutex_;  // guards `key_`; held for moments
  std::shared_ptr<const Signing> key_;
};

}  // namespace veld_report::host
