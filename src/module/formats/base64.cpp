#include "formats/base64.h"

#include <array>
#include <bit>
#include <cstring>

namespace orvel::veld_report {
namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct Pair {
  char characters[2];
};

// The two characters of each 12-bit number, so that a group of three bytes takes two lookups.
constexpr std::array<Pair, 4096> MakePairs() {
  std::array<Pair, 4096> pairs{};
  for (std::uint32_t bits = 0; bits < pairs.size(); ++bits) {
    pairs[bits] = {{alphabet[bits >> 6], alphabet[bits & 0x3f]}};
  }
  return pairs;
}
constexpr std::array<Pair, 4096> pairs = MakePairs();

// Writes the four characters of a 24-bit number.
char* PutGroup(char* place, std::uint64_t bits) {
  std::memcpy(place, pairs[bits >> 12 & 0xfff].characters, 2);
  std::memcpy(place + 2, pairs[bits & 0xfff].characters, 2);
  return place + 4;
}

// The next eight bytes as a big-endian number.
std::uint64_t LoadBigEndian(const std::uint8_t* bytes) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes, sizeof value);
  if constexpr (std::endian::native == std::endian::big) return value;
  value = (value & 0x00ff00ff00ff00ff) << 8 | (value >> 8 & 0x00ff00ff00ff00ff);
  value = (value & 0x0000ffff0000ffff) << 16 | (value >> 16 & 0x0000ffff0000ffff);
  return value << 32 | value >> 32;
}

}  // namespace

void Base64Encode(const std::uint8_t* bytes, std::uint64_t count, zel::string* out) {
  const std::uint64_t length = 4 * (count / 3 + (count % 3 != 0 ? 1 : 0));
  out->size = 0;
  out->data[0] = '\0';
  out->reserve_extra(length);
  char* place = out->data;
  const std::uint64_t whole = count - count % 3;
  std::uint64_t i = 0;
  // Two groups from one load, which reads two bytes more than it uses.
  for (; i + 8 <= count; i += 6) {
    const std::uint64_t bits = LoadBigEndian(bytes + i);
    place = PutGroup(PutGroup(place, bits >> 40), bits >> 16);
  }
  for (; i < whole; i += 3) {
    place =
        PutGroup(place, (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2]);
  }
  if (count % 3 == 1) {
    place = PutGroup(place, std::uint32_t{bytes[whole]} << 16);
    std::memset(place - 2, '=', 2);
  } else if (count % 3 == 2) {
    place = PutGroup(place, (std::uint32_t{bytes[whole]} << 16) | (std::uint32_t{bytes[whole + 1]} << 8));
    place[-1] = '=';
  }
  out->size = length;
  *place = '\0';
}

}  // namespace orvel::veld_report
