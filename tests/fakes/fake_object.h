// FakeObject, the base of every fake: an exact reference count that polices its users.
//
// It differs from the host kit's HostObject in that the object outlives its last Release (see fake_world.h)
// and that QueryInterface can be scripted, as operation "Query NAME".
#pragma once

#include <atomic>
#include <string>
#include <tuple>
#include <utility>

#include "tests/fakes/fake_world.h"
#include "types/object.h"
#include "types/ref.h"

namespace veld_report::fakes {

template <class... Interfaces>
class FakeObject : public Interfaces..., public LedgerEntry {
 public:
  FakeObject(FakeWorld& world, std::string name) : world_(world), name_(std::move(name)) {}
  FakeObject(const FakeObject&) = delete;
  FakeObject& operator=(const FakeObject&) = delete;
  ~FakeObject() override {
    if (references_.load() > 0) Fault(name_ + ": references are out");
  }

  std::uint32_t AddRef() override {
    const std::uint32_t before = references_.fetch_add(1);
    if (before == 0) Fault(name_ + ": AddRef after the last Release");
    return before + 1;
  }
  std::uint32_t Release() override {
    std::uint32_t before = references_.load();
    do {
      if (before == 0) {
        Fault(name_ + ": a Release too many");
        return 0;
      }
    } while (!references_.compare_exchange_weak(before, before - 1));
    if (before == 1) OnEnd();
    return before - 1;
  }
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    Use();
    *out = nullptr;
    if (const auto code = world_.script.Enter("Query " + name_)) return code;
    using First = std::tuple_element_t<0, std::tuple<Interfaces...>>;
    if (interfaceId == 0) {
      *out = static_cast<First*>(this);
    } else {
      (Offer<Interfaces>(interfaceId, out), ...);
    }
    if (!*out) return zel::eInterfaceNotSupported;
    AddRef();
    return world_.script.Done();
  }

  const std::string& Name() const override { return name_; }
  std::uint32_t References() const override { return references_.load(); }

 protected:
  // Every operation begins with it: nobody may call an object without holding a reference.
  void Use() const {
    if (references_.load() == 0) Fault(name_ + ": used after the last Release");
  }
  // The answer of an operation that the module never calls.
  zel::ResultCode Reserved() const {
    Fault(name_ + ": a reserved operation was called");
    return zel::eNotImplemented;
  }
  // The last Release. What the object holds of others has to go here: its destructor comes much later.
  virtual void OnEnd() {}
  FakeWorld& world() const { return world_; }

 private:
  template <class I>
  void Offer(zel::InterfaceId interfaceId, void** out) {
    if constexpr (requires { I::iid; }) {
      if (interfaceId == I::iid) *out = static_cast<I*>(this);
    }
  }

  FakeWorld& world_;
  const std::string name_;
  std::atomic<std::uint32_t> references_{1};
};

// Makes a T, whose memory the ledger keeps, with the one reference that the result owns.
template <class T, class... Arguments>
zel::Ref<T> MakeFake(FakeWorld& world, Arguments&&... arguments) {
  auto object = std::make_unique<T>(world, std::forward<Arguments>(arguments)...);
  zel::Ref<T> reference = zel::Ref<T>::Attach(object.get());
  world.ledger.Adopt(std::move(object));
  return reference;
}

}  // namespace veld_report::fakes
