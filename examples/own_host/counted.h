// Counted<Interfaces...>: the base of every service here, with the reference count and QueryInterface. Make
// makes an object; its last Release destroys it.
#pragma once

#include <atomic>
#include <cstdint>
#include <tuple>
#include <utility>

#include "veld_report/types/object.h"
#include "veld_report/types/ref.h"

namespace own_host {

template <class... Interfaces>
class Counted : public Interfaces... {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  std::uint32_t AddRef() override { return ++count_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --count_;
    if (left == 0) delete this;
    return left;
  }
  zel::ResultCode QueryInterface(zel::InterfaceId id, void** out) override {
    *out = nullptr;
    // Id 0 asks for the first interface. Each pointer is stored as exactly the requested interface.
    if (id == 0) *out = static_cast<std::tuple_element_t<0, std::tuple<Interfaces...>>*>(this);
    (Offer<Interfaces>(id, out), ...);
    if (!*out) return zel::eInterfaceNotSupported;
    AddRef();
    return zel::sOk;
  }

 protected:
  virtual ~Counted() = default;

 private:
  template <class I>
  void Offer(zel::InterfaceId id, void** out) {
    if constexpr (requires { I::iid; }) {
      if (id == I::iid) *out = static_cast<I*>(this);
    }
  }

  std::atomic<std::uint32_t> count_{1};
};

template <class T, class... Arguments>
zel::Ref<T> Make(Arguments&&... arguments) {
  return zel::Ref<T>::Attach(new T(std::forward<Arguments>(arguments)...));
}

}  // namespace own_host
