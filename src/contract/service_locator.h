// zel::IServiceLocator, the host's directory of services. The host implements it.
#pragma once

#include "types/object.h"
#include "types/ref.h"

namespace zel {

// Threads: any. Called on callers' threads, on the timer's and on the HTTP client's.
class IServiceLocator : public IObject {
 public:
  // `interfaceId` selects the service. `reserved` is always 0. On success (a non-negative result) `*out`
  // holds a new reference for the caller, cast to exactly that interface; on failure it stays null. A service
  // may be looked up any number of times. Whether the result is one shared object is up to the locator.
  virtual ResultCode GetInterface(InterfaceId interfaceId, std::uint32_t reserved, void** out) = 0;

 protected:
  ~IServiceLocator() = default;
};

// Looks up interface I by its own id.
template <class I>
ResultCode GetInterface(IServiceLocator* locator, Ref<I>& out) {
  return locator->GetInterface(I::iid, 0, out.OutVoid());
}

}  // namespace zel
