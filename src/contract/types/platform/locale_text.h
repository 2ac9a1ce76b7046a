// What the runtime libraries name differently: text in the locale's encoding, and numbers.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

namespace zel::platform {

// Room for any character in any locale.
inline constexpr std::size_t characterRoom = MB_LEN_MAX < 8 ? 8 : MB_LEN_MAX;

// Writes one character in the locale's encoding, in its initial state. A value that a wchar_t can't hold
// loses its upper bits. Returns the number of bytes, or 0 if the locale lacks the character.
std::size_t EncodeCharacter(std::uint32_t codePoint, char (&out)[characterRoom]);

// Writes the number in decimal, with a NUL.
void DecimalText(std::int32_t number, char (&out)[16]);

}  // namespace zel::platform
