// A hash whose digests are deterministic, and for chosen texts chosen. It is no real hash.
#pragma once

#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "contract/hash.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

using Digest = std::array<std::uint8_t, 16>;

class FakeHashFactory final : public FakeObject<crypto::hash::IHashCalculatorFactory> {
 public:
  explicit FakeHashFactory(FakeWorld& world) : FakeObject(world, "HashFactory") {}

  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override {
    Use();
    if (const auto code = world().script.Enter("CreateCalculator")) return code;
    if (algorithm != queueNameAlgorithm) Fault("HashFactory: algorithm " + std::to_string(algorithm));
    *out = MakeFake<Calculator>(world(), *this).Detach();
    return zel::sOk;
  }

  // The bytes of `text` as they lie in memory will have this digest.
  void Set(std::u16string_view text, const Digest& digest) {
    const std::lock_guard guard(lock_);
    known_[std::string(reinterpret_cast<const char*>(text.data()), 2 * text.size())] = digest;
  }
  Digest DigestOf(const std::string& bytes) const {
    const std::lock_guard guard(lock_);
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

 private:
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
    const FakeHashFactory& factory_;
    std::string text_;
    int updates_ = 0;
  };

  mutable std::mutex lock_;
  std::map<std::string, Digest> known_;
};

}  // namespace veld_report::fakes
