// HashService: the hash that gives the queues their names.
//
// Algorithm 100 is MD5 (RFC 1321), by OpenSSL. It names queues and protects nothing: an attacker who chooses
// urls only chooses the names of his own queues. It must never change, or existing queues lose their names.
#pragma once

#include "contract/hash.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// Threads: any.
class HashService final : public HostObject<crypto::hash::IHashCalculatorFactory> {
 public:
  // Returns 0x80000042 "Not supported" for any algorithm but 100, and if OpenSSL has no MD5.
  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override;
};

}  // namespace veld_report::host
