// The two records of the wire format: the content of one request before it becomes JSON.
//
// They are plain values, built, serialised and destroyed within one request. Their descriptors are in
// formats/message_descriptors.h; the whole format is in docs/wire-format.md.
#pragma once

#include <cstdint>

#include "types/basic_string.h"
#include "types/vector.h"

namespace orvel::veld_report {

struct Signature {
  static constexpr std::uint32_t serId = 0x8bb286f2;
  zel::string protected_;  // JSON member "protected": base64 text of the signature block
};

struct Message {
  static constexpr std::uint32_t serId = 0xe688adc8;
  zel::string payload;                  // base64 text of the payload text
  zel::vector_t<Signature> signatures;  // always exactly one
};

// The signature block of an unsigned message: 14 characters and a zero byte, which is part of it.
inline constexpr std::uint8_t unsignedSignatureBlock[] = {0x7b, 0x22, 0x61, 0x6c, 0x67, 0x22, 0x3a, 0x22,
                                                          0x6e, 0x6f, 0x6e, 0x65, 0x22, 0x7d, 0x00};
static_assert(sizeof(unsignedSignatureBlock) == 15);

}  // namespace orvel::veld_report
