#include "host/platform/random.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace veld_report::host {

void FillWithRandom(std::span<std::byte> bytes) {
  if (getentropy(bytes.data(), bytes.size()) != 0)
    throw std::system_error(errno, std::generic_category(), "the system has no random numbers");
}

}  // namespace veld_report::host
