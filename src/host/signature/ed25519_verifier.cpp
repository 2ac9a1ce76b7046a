#include "host/signature/ed25519_verifier.h"

#include <simdjson.h>

#include <utility>

namespace veld_report::host {
namespace {

constexpr std::size_t signatureBytes = 64;

struct Header {
  std::string algorithm;
  std::string keyId;
};

std::optional<Header> ParseHeader(std::string_view text) {
  simdjson::dom::parser parser;
  simdjson::dom::element root;
  std::string_view algorithm, keyId;
  if (parser.parse(text.data(), text.size()).get(root) != simdjson::SUCCESS) return std::nullopt;
  if (root["alg"].get(algorithm) != simdjson::SUCCESS) return std::nullopt;
  // A header without a key name is legal, but matches no key.
  if (root["kid"].get(keyId) != simdjson::SUCCESS) keyId = {};
  return Header{std::string(algorithm), std::string(keyId)};
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
  const auto header = ParseHeader(parts->header);
  if (!header) return "the header of the signature isn't a JSON object with \"alg\"";
  if (header->algorithm != "EdDSA") return "the signature's algorithm isn't EdDSA";
  if (header->keyId != key_.KeyId()) return "the signature was made with another key";
  if (!key_.Verify(payload, parts->signature)) return "the signature doesn't match the payload";
  return {};
}

}  // namespace veld_report::host
