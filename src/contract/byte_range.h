// A pair of byte pointers: to the first byte and past the last one. Always passed by pointer. The bytes
// belong to the caller and stay valid during the call.
#pragma once

#include <cstdint>

namespace zel {

struct ByteRange {
  const std::uint8_t* begin;
  const std::uint8_t* end;
};
static_assert(sizeof(ByteRange) == 16);

}  // namespace zel
