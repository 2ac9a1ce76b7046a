// Messages as a sender makes them, for the tests of what receives them.
#pragma once

#include <openssl/evp.h>

#include <string>
#include <string_view>

namespace veld_report::server_test {

inline std::string EncodeBase64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.pop_back();
  return text;
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
