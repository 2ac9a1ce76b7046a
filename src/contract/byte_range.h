// A pair of byte pointers: the first byte and the place behind the last one. Always passed by pointer; the
// bytes belong to the caller and stay valid for the length of the call.
#pragma once

#include <cstdint>

namespace zel {

struct ByteRange {
  const std::uint8_t* begin;
  const std::uint8_t* end;
};
static_assert(sizeof(ByteRange) == 16);

}  // namespace zel
