// The host's signatures. Optional: without it messages carry a fixed unsigned header (docs/wire-format.md).
#pragma once

#include "contract/byte_range.h"
#include "types/object.h"
#include "types/vector.h"

namespace orvel {

class ISignatureProvider : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xf9fcadfa;
  // Signs the raw payload text of one message, valid during the call. `signatureBlock` is empty and is filled
  // with what the server is to see, possibly nothing. A negative result makes the message an unsigned one.
  // Called once a request, on the timer's thread.
  virtual zel::ResultCode Sign(const zel::ByteRange* payload,
                               zel::vector_t<std::uint8_t>* signatureBlock) = 0;

 protected:
  ~ISignatureProvider() = default;
};

}  // namespace orvel
