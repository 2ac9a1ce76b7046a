// Processes don't fork here.
#include "host/platform/fork_guard.h"

namespace veld_report::host {

ForkGuard::ForkGuard() = default;
void ForkGuard::Add(const File&) {}
void ForkGuard::Remove(const File&) noexcept {}
std::optional<std::uint64_t> ForkGuard::InheritedFrom(const std::filesystem::path&) const {
  return std::nullopt;
}

}  // namespace veld_report::host
