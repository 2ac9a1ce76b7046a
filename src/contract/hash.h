// The host's hash service, which gives the queues their names. Required when a sender is created.
#pragma once

#include "contract/byte_range.h"
#include "types/object.h"

namespace crypto::hash {

// One calculation: Update, then Finish. For one thread.
class IHashCalculator : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x61b2b6f5;
  virtual zel::ResultCode ReservedHashOperation0() = 0;
  // Adds the bytes to the hash.
  virtual zel::ResultCode Update(const zel::ByteRange* bytes) = 0;
  virtual zel::ResultCode ReservedHashOperation2() = 0;
  virtual zel::ResultCode ReservedHashOperation3() = 0;
  virtual zel::ResultCode ReservedHashOperation4() = 0;
  // Writes the 16 bytes of the digest.
  virtual zel::ResultCode Finish(std::uint8_t* digest) = 0;

 protected:
  ~IHashCalculator() = default;
};

// Threads: any.
class IHashCalculatorFactory : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x898b9c28;
  // The only algorithm that the module asks for, with a digest of 16 bytes. If the host changes the
  // algorithm, the queues' names change.
  static constexpr std::uint32_t queueNameAlgorithm = 100;

  // `*out`: a new object that implements IHashCalculator, with one reference for the caller.
  virtual zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) = 0;

 protected:
  ~IHashCalculatorFactory() = default;
};

}  // namespace crypto::hash
