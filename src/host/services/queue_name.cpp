#include "host/services/queue_name.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <stdexcept>

#include "host/base/text.h"
#include "types/text_conversion.h"

namespace veld_report::host {

std::string QueueNameOfUrl(std::string_view utf8Url) {
  const zel::wstring wide = ToWide(utf8Url);
  std::array<std::uint8_t, 16> digest{};
  if (EVP_Digest(wide.data, wide.size * sizeof(char16_t), digest.data(), nullptr, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("queue name: the MD5 of OpenSSL isn't available; check OpenSSL's configuration");
  }
  return ToStd(zel::HexText(digest.data(), digest.size()));
}

}  // namespace veld_report::host
