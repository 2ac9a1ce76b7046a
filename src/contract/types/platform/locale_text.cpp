#include "types/platform/locale_text.h"

#include <charconv>
#include <cstdlib>
#include <cwchar>

namespace zel::platform {

#if defined(_WIN32)

std::size_t EncodeCharacter(std::uint32_t codePoint, char (&out)[characterRoom]) {
  std::mbstate_t state{};
  std::size_t length = 0;
  const auto error = wcrtomb_s(&length, out, sizeof(out), static_cast<wchar_t>(codePoint), &state);
  return error == 0 ? length : 0;
}

void DecimalText(std::int32_t number, char (&out)[16]) { _itoa(number, out, 10); }

#else

std::size_t EncodeCharacter(std::uint32_t codePoint, char (&out)[characterRoom]) {
  std::mbstate_t state{};
  const std::size_t length = std::wcrtomb(out, static_cast<wchar_t>(codePoint), &state);
  return length == static_cast<std::size_t>(-1) ? 0 : length;
}

void DecimalText(std::int32_t number, char (&out)[16]) {
  *std::to_chars(out, out + sizeof(out) - 1, number).ptr = '\0';
}

#endif

}  // namespace zel::platform
