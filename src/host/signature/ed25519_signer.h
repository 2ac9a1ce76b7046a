// Ed25519Signer: the signature provider of the host kit.
//
// The signature block is the JSON header {"alg":"EdDSA","kid":"..."}, a zero byte, and the 64 bytes of the
// signature over the payload text (RFC 8032, the plain form without a context). `kid` is Ed25519Key::KeyId.
// It proves who made the message; it doesn't encrypt.
#pragma once

#include <string>

#include "contract/signature.h"
#include "host/base/host_object.h"
#include "host/signature/ed25519_key.h"

namespace veld_report::host {

// Threads: any.
class Ed25519Signer final : public HostObject<orvel::ISignatureProvider> {
 public:
  // `key` needs its private half.
  explicit Ed25519Signer(Ed25519Key key);

  // Returns 0x8000004b "Unspecified error" if OpenSSL can't sign; the message is then sent unsigned.
  zel::ResultCode Sign(const zel::ByteRange* payload, zel::vector_t<std::uint8_t>* signatureBlock) override;

 private:
  const Ed25519Key key_;
  const std::string header_;  // including the zero byte
};

}  // namespace veld_report::host
