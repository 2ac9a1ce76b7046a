// Ed25519Verifier: the counterpart of Ed25519Signer, for servers and for tools that inspect messages.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "host/signature/ed25519_key.h"

namespace veld_report::host {

// The two parts of a signed block, as views into it.
struct SignatureBlockParts {
  std::string_view header;  // JSON text
  std::span<const std::uint8_t> signature;
};

// Splits a block into the header, the zero byte and the 64 bytes of signature. Returns nothing if the block
// doesn't have that form; an unsigned block hasn't. The header isn't parsed here.
std::optional<SignatureBlockParts> SplitSignatureBlock(std::string_view block);

// Threads: any.
class Ed25519Verifier {
 public:
  // `key` only needs its public half.
  explicit Ed25519Verifier(Ed25519Key key);

  // Checks the form, algorithm, key name and signature of a block over a payload. Returns an empty text if it
  // is valid, otherwise a phrase that says what is wrong ("the message isn't signed"). The signature doesn't
  // cover the header, so that may have no member but "alg" and "kid", each once. Throws std::bad_alloc.
  std::string Check(std::string_view payload, std::string_view block) const;

  // What Check returns if the message may be another key's.
  static constexpr std::string_view otherKey = "the signature was made with another key";

 private:
  const Ed25519Key key_;
};

}  // namespace veld_report::host
