// ServiceLocator: the directory through which the module finds the host's services.
//
// It is a table from interface id to one shared object; it makes nothing on demand. The module looks up
// services nowhere else, so a service that isn't registered here doesn't exist for it. Each submission looks
// up two, so a look-up changes nothing that other threads use. It is a residence of the services.
#pragma once

#include <map>

#include "contract/service_locator.h"
#include "host/base/host_object.h"
#include "host/base/resident_object.h"
#include "host/base/shards.h"

namespace veld_report::host {

// Life: filled -> in use -> cleared. Services may be registered and removed at any time, but a sender only
// looks up most of them while it is created and constructed.
// Threads: any.
class ServiceLocator final : public HostObject<zel::IServiceLocator> {
 public:
  // Registers the service under the interface's own id and replaces an earlier one. Takes a reference. A null
  // `service` removes the entry. Throws std::bad_alloc.
  template <class I>
  void Register(zel::Ref<I> service) {
    I* const exact = service.Get();
    Store(I::iid, zel::Ref<zel::IObject>(std::move(service)), exact);
  }

  // Releases all services. Breaks the reference cycle if one of them holds the locator.
  void Clear();

  // Returns the registered pointer, cast to exactly that interface, with a new reference. 0x80000001
  // "Interface not supported" for an id that isn't in the table. `reserved` is ignored.
  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) override;

 private:
  // A service's place in the table.
  class Entry {
   public:
    Entry() = default;
    Entry(zel::Ref<zel::IObject> keeper, void* exact);
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    ~Entry();
    void Swap(Entry& other) noexcept;

    zel::IObject* Keeper() const { return keeper_.Get(); }
    void* Exact() const { return exact_; }

   private:
    zel::Ref<zel::IObject> keeper_;
    zel::Ref<IResident> resident_;  // the same object, if it is one
    void* exact_ = nullptr;
  };

  void Store(zel::InterfaceId interfaceId, zel::Ref<zel::IObject> keeper, void* exact);

  ShardedMutex mutex_;  // guards entries_; no service is released under it
  std::map<zel::InterfaceId, Entry> entries_;
};

}  // namespace veld_report::host
