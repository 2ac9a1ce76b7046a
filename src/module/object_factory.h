// The factory of one class, which zelGetObjectFactory makes anew for every call. It holds nothing but its
// reference count; the objects that it makes don't depend on it.
#pragma once

#include "contract/object_factory.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/objclient.h"
#include "zel/rtl/object.h"

namespace zel {

// T: the class to make; ObjectT: the wrapper that is actually instantiated.
template <class T, class ObjectT>
class GenericObjectFactory : public IObjectFactory, public ObjectRootEx<NoServiceStrategy> {
 public:
  ResultCode QueryInterface(InterfaceId interfaceId, void** out) override {
    if (interfaceId != 0 && interfaceId != IObjectFactory::iid) {
      *out = nullptr;
      return eInterfaceNotSupported;
    }
    *out = static_cast<IObjectFactory*>(this);
    AddRef();
    return sOk;
  }

  ResultCode CreateInstance(IServiceLocator* locator, InterfaceId interfaceId, void** out) override {
    ObjectT* object = nullptr;
    if (const ResultCode code = LocatorObjectFactory::Make(locator, &object); Failed(code)) return code;
    try {
      const ResultCode code = object->QueryInterface(interfaceId, out);
      // If the query failed, this is the last reference and destroys the object.
      object->Release();
      return code;
    } catch (...) {
      return ConstructionExceptionToResultCode(locator);
    }
  }
};

}  // namespace zel
