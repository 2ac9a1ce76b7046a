// The host's signatures. Optional; without them messages carry a fixed unsigned header (docs/wire-format.md).
#pragma once

#include "contract/byte_range.h"
#include "types/object.h"
#include "types/vector.h"

namespace orvel {

class ISignatureProvider : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xf9fcadfa;
  // Signs the payload text of one message. It is valid during the call. `signatureBlock` is empty on entry
  // and receives what the server is to see, possibly nothing. If the result is negative, the message is sent
  // unsigned. Called once per request, on the timer's thread.
  virtual zel::ResultCode Sign(const zel::ByteRange* payload,
                               zel::vector_t<std::uint8_t>* signatureBlock) = 0;

 protected:
  ~ISignatureProvider() = default;
};

}  // namespace orvel
