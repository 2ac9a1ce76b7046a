// A hash whose digests can be foreseen: each byte is 10 for a text that ends in "a", 11 for "b" and so on.
#pragma once

#include <array>
#include <cstring>
#include <map>
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
    return world().Done();
  }

  // Other digests, for texts by their bytes in memory. To be filled before anything is hashed.
  std::map<std::u16string, Digest> chosen;

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
      text_.resize(static_cast<std::size_t>(bytes->end - bytes->begin) / 2);
      std::memcpy(text_.data(), bytes->begin, 2 * text_.size());
      return world().Done();
    }
    zel::ResultCode ReservedHashOperation2() override { return Reserved(); }
    zel::ResultCode ReservedHashOperation3() override { return Reserved(); }
    zel::ResultCode ReservedHashOperation4() override { return Reserved(); }
    zel::ResultCode Finish(std::uint8_t* digest) override {
      Use();
      if (const auto code = world().script.Enter("Finish")) return code;
      if (updates_ != 1) Fault("HashCalculator: Finish without Update");
      const auto found = factory_.chosen.find(text_);
      if (found == factory_.chosen.end()) {
        std::memset(digest, text_.empty() ? 0 : text_.back() - u'a' + 10, sizeof(Digest));
      } else {
        std::memcpy(digest, found->second.data(), sizeof(Digest));
      }
      return world().Done();
    }

   private:
    const FakeHashFactory& factory_;
    std::u16string text_;
    int updates_ = 0;
  };
};

}  // namespace veld_report::fakes
