#include "host/services/hash_service.h"

#include <openssl/evp.h>

#include <memory>

namespace veld_report::host {
namespace {

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// One calculation: Update any number of times, then Finish once. After that both return 0x8000006a "Invalid
// state". For one thread.
class HashCalculator final : public HostObject<crypto::hash::IHashCalculator> {
 public:
  bool Begin() { return context_ && EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) == 1; }

  zel::ResultCode ReservedHashOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedHashOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedHashOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedHashOperation4() override { return zel::eNotImplemented; }

  zel::ResultCode Update(const zel::ByteRange* bytes) override {
    if (!bytes || bytes->end < bytes->begin) return zel::eInvalidArgument;
    if (!context_) return zel::eInvalidState;
    const auto count = static_cast<std::size_t>(bytes->end - bytes->begin);
    return EVP_DigestUpdate(context_.get(), bytes->begin, count) == 1 ? zel::sOk : zel::eUnspecifiedError;
  }

  zel::ResultCode Finish(std::uint8_t* digest) override {
    if (!digest) return zel::eInvalidArgument;
    if (!context_) return zel::eInvalidState;
    const bool done = EVP_DigestFinal_ex(context_.get(), digest, nullptr) == 1;
    context_.reset();
    return done ? zel::sOk : zel::eUnspecifiedError;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, FreeContext> context_{EVP_MD_CTX_new()};
};

}  // namespace

zel::ResultCode HashService::CreateCalculator(std::uint32_t algorithm, zel::IObject** out) {
  return Guarded([&] {
    *out = nullptr;
    if (algorithm != queueNameAlgorithm) return zel::eNotSupported;
    auto calculator = MakeObject<HashCalculator>();
    if (!calculator->Begin()) return zel::eNotSupported;
    *out = calculator.Detach();
    return zel::sOk;
  });
}

}  // namespace veld_report::host
