#include "host/signature/ed25519_verifier.h"

#include <simdjson.h>

#include <utility>

#include "host/base/printable.h"

namespace veld_report::host {
namespace {

constexpr std::size_t signatureBytes = 64;

// Returns what is wrong with the header, or an empty text.
std::string HeaderProblem(std::string_view text, std::string_view wantedKeyId) {
  simdjson::dom::parser parser;
  simdjson::dom::object header;
  std::optional<std::string> algorithm, keyId;
  if (parser.parse(text.data(), text.size()).get(header) == simdjson::SUCCESS) {
    for (const auto [name, value] : header) {
      if (name != "alg" && name != "kid")
        return "the header of the signature has an unknown member: " + Printable(name);
      std::optional<std::string>& member = name == "alg" ? algorithm : keyId;
      if (member) return "the header of the signature has the member " + Printable(name) + " twice";
      std::string_view given;
      // What isn't text matches no algorithm and no key.
      member = value.get(given) == simdjson::SUCCESS ? std::string(given) : "";
    }
  }
  if (!algorithm) return "the header of the signature isn't a JSON object with \"alg\"";
  if (*algorithm != "EdDSA") return "the signature's algorithm isn't EdDSA";
  if (keyId != wantedKeyId) return std::string(Ed25519Verifier::otherKey);
  return {};
}

}  // namespace

std::optional<SignatureBlockParts> SplitSignatureBlock(std::string_view block) {
  if (block.size() < signatureBytes + 1) return std::nullopt;
  const std::size_t headerSize = block.size() - signatureBytes - 1;
  if (block[headerSize] != '\0') return std::nullopt;
  const auto* const signature = reinterpret_cast<const std::uint8_t*>(block.data() + headerSize + 1);
  return SignatureBlockParts{block.substr(0, headerSize), {signature, signatureBytes}};
}

Ed25519Verifier::Ed25519Verifier(Ed25519Key key) : key_(std::move(key)) {}

std::string Ed25519Verifier::Check(std::string_view payload, std::string_view block) const {
  const auto parts = SplitSignatureBlock(block);
  if (!parts) return "the message isn't signed";
  std::string problem = HeaderProblem(parts->header, key_.KeyId());
  if (!problem.empty()) return problem;
  if (!key_.Verify(payload, parts->signature)) return "the signature doesn't match the payload";
  return {};
}

}  // namespace veld_report::host
