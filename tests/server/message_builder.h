// Messages as a sender makes them, for the tests of what receives them.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::server_test {

inline std::string EncodeBase64(std::string_view bytes) {
  constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned bits = 0;
    for (std::size_t k = i; k < i + 3; ++k)
      bits = bits << 8 | (k < bytes.size() ? static_cast<unsigned char>(bytes[k]) : 0);
    for (const int shift : {18, 12, 6, 0}) text += alphabet[bits >> shift & 63];
  }
  const std::size_t missing = (3 - bytes.size() % 3) % 3;
  return text.replace(text.size() - missing, missing, missing, '=');
}

// The worked example: two items and the unsigned block.
inline constexpr std::string_view exampleBody =
    R"({"payload":"eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19","signatures":[{"protected":"eyJhbGciOiJub25lIn0A"}]})";

// A body around a payload text, with any signature block; by default the unsigned one.
inline std::string Body(std::string_view payloadText, std::string_view block = {"{\"alg\":\"none\"}\0", 15}) {
  return R"({"payload":")" + EncodeBase64(payloadText) + R"(","signatures":[{"protected":")" +
         EncodeBase64(block) + R"("}]})";
}

}  // namespace veld_report::server_test
