// zel::IObject, the root of every interface that crosses between host and module.
//
// An interface is a class with only pure virtual functions, single inheritance from IObject and no data, so
// that slot n of its table is operation n. Objects end with Release, never with delete: the destructors of
// interfaces are protected and take no slot.
#pragma once

#include <cstdint>

#include "types/result_code.h"

namespace zel {

using InterfaceId = std::uint32_t;

class IObject {
 public:
  // Takes a reference. Returns the new count. Any thread.
  virtual std::uint32_t AddRef() = 0;
  // Releases a reference. Returns the new count; at 0 the object is gone. Any thread.
  virtual std::uint32_t Release() = 0;
  // Asks for another interface of the same object. On success `*out` holds a pointer, cast to exactly that
  // interface, with one reference for the caller; on failure it is null. Id 0 means the object's first
  // interface. For an unknown id it returns 0x80000001 "Interface not supported".
  virtual ResultCode QueryInterface(InterfaceId interfaceId, void** out) = 0;

 protected:
  ~IObject() = default;
};

}  // namespace zel
