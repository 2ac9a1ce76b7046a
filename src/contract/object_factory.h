// zel::IObjectFactory, returned by zelGetObjectFactory. The module implements it.
#pragma once

#include "contract/service_locator.h"

namespace zel {

class IObjectFactory : public IObject {
 public:
  static constexpr InterfaceId iid = 0x80077a33;
  // Makes an object of the factory's class. `locator` isn't null; the object keeps a reference to it.
  // `interfaceId` is the wanted interface, 0 for the first. `*out` receives it with one reference. Any
  // thread.
  virtual ResultCode CreateInstance(IServiceLocator* locator, InterfaceId interfaceId, void** out) = 0;

 protected:
  ~IObjectFactory() = default;
};

}  // namespace zel
