#include "tests/fakes/fake_hash.h"

#include <cstring>

namespace veld_report::fakes {
namespace {

class Calculator final : public FakeObject<crypto::hash::IHashCalculator> {
 public:
  Calculator(FakeWorld& world, const FakeHashFactory& factory)
      : FakeObject(world, "HashCalculator"), factory_(factory) {}

  zel::ResultCode ReservedHashOperation0() override { return Reserved(); }
  zel::ResultCode Update(const zel::ByteRange* bytes) override {
    Use();
    if (const auto code = world().script.Enter("Update")) return code;
    if (updates_++ > 0) Fault("HashCalculator: a second Update");
    text_.assign(bytes->begin, bytes->end);
    return zel::sOk;
  }
  zel::ResultCode ReservedHashOperation2() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation3() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation4() override { return Reserved(); }
  zel::ResultCode Finish(std::uint8_t* digest) override {
    Use();
    if (const auto code = world().script.Enter("Finish")) return code;
    if (updates_ != 1) Fault("HashCalculator: Finish without Update");
    const Digest result = factory_.DigestOf(text_);
    std::memcpy(digest, result.data(), result.size());
    return zel::sOk;
  }

 private:
  static zel::ResultCode Reserved() {
    Fault("HashCalculator: a reserved operation was called");
    return zel::eNotImplemented;
  }

  const FakeHashFactory& factory_;
  std::string text_;
  int updates_ = 0;
};

}  // namespace

zel::ResultCode FakeHashFactory::CreateCalculator(std::uint32_t algorithm, zel::IObject** out) {
  Use();
  if (const auto code = world().script.Enter("CreateCalculator")) return code;
  if (algorithm != queueNameAlgorithm) Fault("HashFactory: algorithm " + std::to_string(algorithm));
  *out = MakeFake<Calculator>(world(), *this).Detach();
  return zel::sOk;
}

void FakeHashFactory::Set(std::u16string_view text, const Digest& digest) {
  std::lock_guard guard(lock_);
  known_[std::string(reinterpret_cast<const char*>(text.data()), 2 * text.size())] = digest;
}

Digest FakeHashFactory::DigestOf(const std::string& bytes) const {
  std::lock_guard guard(lock_);
  if (const auto found = known_.find(bytes); found != known_.end()) return found->second;
  std::uint64_t state = 0xcbf29ce484222325;
  for (const char byte : bytes) state = (state ^ static_cast<std::uint8_t>(byte)) * 0x100000001b3;
  Digest digest;
  for (auto& byte : digest) {
    state = (state ^ (state >> 29)) * 0xbf58476d1ce4e5b9 + 1;
    byte = static_cast<std::uint8_t>(state >> 56);
  }
  return digest;
}

}  // namespace veld_report::fakes
