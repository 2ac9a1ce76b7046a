#include "host/services/service_locator.h"

#include <mutex>
#include <utility>

namespace veld_report::host {

void ServiceLocator::Store(zel::InterfaceId interfaceId, zel::Ref<zel::IObject> keeper, void* exact) {
  Entry entry{std::move(keeper), exact};
  const std::unique_lock lock(mutex_);
  if (exact) {
    std::swap(entries_[interfaceId], entry);
  } else if (const auto found = entries_.find(interfaceId); found != entries_.end()) {
    std::swap(found->second, entry);
    entries_.erase(found);
  }
  // `entry` is declared before the guard, so what it holds is released outside the lock.
}

void ServiceLocator::Clear() {
  std::map<zel::InterfaceId, Entry> old;
  const std::unique_lock lock(mutex_);
  old.swap(entries_);
}

zel::ResultCode ServiceLocator::GetInterface(zel::InterfaceId interfaceId, std::uint32_t, void** out) {
  return Guarded([&] {
    *out = nullptr;
    const std::shared_lock lock(mutex_);
    const auto found = entries_.find(interfaceId);
    if (found == entries_.end()) return zel::eInterfaceNotSupported;
    found->second.keeper->AddRef();
    *out = found->second.exact;
    return zel::sOk;
  });
}

}  // namespace veld_report::host
