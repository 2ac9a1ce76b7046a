#include "host/services/service_locator.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

namespace veld_report::host {

ServiceLocator::Entry::Entry(zel::Ref<zel::IObject> keeper, void* exact)
    : keeper_(std::move(keeper)), exact_(exact) {
  if (!keeper_ || zel::Failed(keeper_->QueryInterface(IResident::iid, resident_.OutVoid()))) return;
  resident_->BeginResidence();
}

ServiceLocator::Entry::~Entry() {
  if (resident_) resident_->EndResidence();
}

void ServiceLocator::Entry::Swap(Entry& other) noexcept {
  std::swap(keeper_, other.keeper_);
  std::swap(resident_, other.resident_);
  std::swap(exact_, other.exact_);
}

void ServiceLocator::Store(zel::InterfaceId interfaceId, zel::Ref<zel::IObject> keeper, void* exact) {
  Entry entry(std::move(keeper), exact);
  const std::lock_guard lock(mutex_);
  if (exact) {
    entries_[interfaceId].Swap(entry);
  } else if (const auto found = entries_.find(interfaceId); found != entries_.end()) {
    found->second.Swap(entry);
    entries_.erase(found);
  }
  // `entry` is declared before the guard, so what it holds is released outside the lock.
}

void ServiceLocator::Clear() {
  std::map<zel::InterfaceId, Entry> old;
  const std::lock_guard lock(mutex_);
  old.swap(entries_);
}

zel::ResultCode ServiceLocator::GetInterface(zel::InterfaceId interfaceId, std::uint32_t, void** out) {
  return Guarded([&] {
    *out = nullptr;
    const std::shared_lock lock(mutex_);
    const auto found = entries_.find(interfaceId);
    if (found == entries_.end()) return zel::eInterfaceNotSupported;
    found->second.Keeper()->AddRef();
    *out = found->second.Exact();
    return zel::sOk;
  });
}

}  // namespace veld_report::host
