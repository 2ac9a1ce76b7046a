// How the body of a request is compressed (Content-Encoding, RFC 9110, 8.4).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace veld_report::host {

enum class BodyCoding : std::uint8_t { none, gzip, zstd };

// "gzip" and the like, as in a header.
constexpr const char* NameOf(BodyCoding coding) {
  return coding == BodyCoding::gzip ? "gzip" : coding == BodyCoding::zstd ? "zstd" : "none";
}

// Of a name as NameOf returns it; empty is none. Nothing for any other text.
constexpr std::optional<BodyCoding> ReadBodyCoding(std::string_view name) {
  if (name.empty()) return BodyCoding::none;
  for (const BodyCoding each : {BodyCoding::none, BodyCoding::gzip, BodyCoding::zstd})
    if (name == NameOf(each)) return each;
  return std::nullopt;
}

}  // namespace veld_report::host
