#include "host/platform/random.h"

#include <system_error>

#include "host/platform/windows/wide.h"
// Needs the names of windows.h.
#include <bcrypt.h>

namespace veld_report::host {

void FillWithRandom(std::span<std::byte> bytes) {
  const auto status = BCryptGenRandom(nullptr, reinterpret_cast<unsigned char*>(bytes.data()),
                                      static_cast<ULONG>(bytes.size()), BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  if (status < 0)
    throw std::system_error(std::make_error_code(std::errc::io_error), "the system has no random numbers");
}

}  // namespace veld_report::host
