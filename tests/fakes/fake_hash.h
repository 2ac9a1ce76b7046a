// A hash whose digests are deterministic, and for chosen texts chosen. It is no real hash.
#pragma once

#include <array>
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

  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override;

  // The bytes of `text` as they lie in memory will have this digest.
  void Set(std::u16string_view text, const Digest& digest);
  Digest DigestOf(const std::string& bytes) const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, Digest> known_;
};

}  // namespace veld_report::fakes
