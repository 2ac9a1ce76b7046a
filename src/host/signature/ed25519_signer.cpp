#include "host/signature/ed25519_signer.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace veld_report::host {

namespace {

constexpr std::string_view unsignedBlock("{\"alg\":\"none\"}", 15);  // including the zero byte

}  // namespace

Ed25519Signer::Signing::Signing(Ed25519Key given)
    : key(std::move(given)), header(R"({"alg":"EdDSA","kid":")" + key.KeyId() + "\"}" + '\0') {}

Ed25519Signer::Ed25519Signer(std::optional<Ed25519Key> key) {
  if (key) key_ = std::make_shared<const Signing>(*std::move(key));
}

void Ed25519Signer::SetKey(std::shared_ptr<const Signing> key) noexcept {
  const std::lock_guard lock(mutex_);
  key_.swap(key);
}

zel::ResultCode Ed25519Signer::Sign(const zel::ByteRange* payload,
                                    zel::vector_t<std::uint8_t>* signatureBlock) {
  return Guarded([&] {
    std::shared_ptr<const Signing> signing;
    {
      const std::lock_guard lock(mutex_);
      signing = key_;
    }
    signatureBlock->clear();
    if (!signing) {
      signatureBlock->append(unsignedBlock.size());
      std::copy(unsignedBlock.begin(), unsignedBlock.end(), signatureBlock->first);
      return zel::sOk;
    }
    const auto* const text = reinterpret_cast<const char*>(payload->begin);
    const auto signature = signing->key.Sign({text, static_cast<std::size_t>(payload->end - payload->begin)});
    const std::string& header = signing->header;
    signatureBlock->append(header.size() + signature.size());
    std::uint8_t* const afterHeader = std::copy(header.begin(), header.end(), signatureBlock->first);
    std::copy(signature.begin(), signature.end(), afterHeader);
    return zel::sOk;
  });
}

}  // namespace veld_report::host
