#include "tests/server/message_builder.h"

#include <openssl/evp.h>

namespace veld_report::server_test {

std::string EncodeBase64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::string Body(std::string_view payloadText, std::string_view block) {
  return R"({"payload":")" + EncodeBase64(payloadText) + R"(","signatures":[{"protected":")" +
         EncodeBase64(block) + R"("}]})";
}

}  // namespace veld_report::server_test
