#include "host/signature/ed25519_signer.h"

#include <algorithm>
#include <utility>

namespace veld_report::host {

Ed25519Signer::Ed25519Signer(Ed25519Key key)
    : key_(std::move(key)), header_(R"({"alg":"EdDSA","kid":")" + key_.KeyId() + "\"}" + '\0') {}

zel::ResultCode Ed25519Signer::Sign(const zel::ByteRange* payload,
                                    zel::vector_t<std::uint8_t>* signatureBlock) {
  return Guarded([&] {
    const auto* const text = reinterpret_cast<const char*>(payload->begin);
    const auto signature = key_.Sign({text, static_cast<std::size_t>(payload->end - payload->begin)});
    signatureBlock->clear();
    signatureBlock->append(header_.size() + signature.size());
    std::uint8_t* const afterHeader = std::copy(header_.begin(), header_.end(), signatureBlock->first);
    std::copy(signature.begin(), signature.end(), afterHeader);
    return zel::sOk;
  });
}

}  // namespace veld_report::host
