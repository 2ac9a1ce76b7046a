// HostObject: the base class of the host kit's objects that implement interfaces of the contract.
//
// It provides the reference count and QueryInterface; a service derives from it and implements the
// operations. MakeObject makes an object with one reference, and the last Release destroys it. Not for
// objects that are members of others.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <tuple>
#include <utility>

#include "types/object.h"
#include "types/ref.h"

namespace veld_report::host {

// `Interfaces`: what the object implements. Id 0 returns the first; an interface without an id of its own (no
// `iid` member) can't be reached in any other way.
template <class... Interfaces>
class HostObject : public Interfaces... {
 public:
  HostObject() = default;
  HostObject(const HostObject&) = delete;
  HostObject& operator=(const HostObject&) = delete;

  // Whoever adds has a reference already, so that needs no order. Each removal releases what its thread did
  // with the object, and the last one acquires all of that before it destroys.
  std::uint32_t AddRef() override { return references_.fetch_add(1, std::memory_order_relaxed) + 1; }
  std::uint32_t Release() override {
    const std::uint32_t left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    *out = nullptr;
    using First = std::tuple_element_t<0, std::tuple<Interfaces...>>;
    if (interfaceId == 0) {
      *out = static_cast<First*>(this);
    } else {
      (Offer<Interfaces>(interfaceId, out), ...);
    }
    if (!*out) return zel::eInterfaceNotSupported;
    AddRef();
    return zel::sOk;
  }

 protected:
  virtual ~HostObject() = default;

 private:
  template <class I>
  void Offer(zel::InterfaceId interfaceId, void** out) {
    if constexpr (requires { I::iid; }) {
      if (interfaceId == I::iid) *out = static_cast<I*>(this);
    }
  }

  std::atomic<std::uint32_t> references_{1};
};

// Makes a T; the result owns its one reference.
template <class T, class... Arguments>
zel::Ref<T> MakeObject(Arguments&&... arguments) {
  return zel::Ref<T>::Attach(new T(std::forward<Arguments>(arguments)...));
}

// Runs `body`, which returns a ResultCode, and translates its exceptions into codes. No operation of the kit
// lets an exception cross the binary boundary.
template <class Body>
zel::ResultCode Guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return zel::eOutOfMemory;
  } catch (...) {
    return zel::eUnspecifiedError;
  }
}

}  // namespace veld_report::host
