// zel::Ref, a counted reference: a pointer that is null or owns one reference to an interface.
//
// Unlike std::shared_ptr, the count is in the object, and references cross the binary boundary as plain
// pointers. Transfers are explicit: Attach takes over a reference that the caller owned, Detach gives it up,
// Out receives one from an out argument. Threads: one at a time for each Ref.
#pragma once

#include <concepts>
#include <utility>

#include "types/object.h"

namespace zel {

template <class T>
class Ref {
 public:
  constexpr Ref() = default;
  // Takes a reference of its own.
  explicit Ref(T* object) : object_(object) {
    if (object_) object_->AddRef();
  }
  Ref(const Ref& other) : Ref(other.object_) {}
  template <class U>
  requires std::convertible_to<U*, T*> Ref(const Ref<U>& other) : Ref(static_cast<T*>(other.Get())) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::convertible_to<U*, T*> Ref(Ref<U>&& other)
  noexcept : object_(other.Detach()) {}
  ~Ref() { Reset(); }

  // Takes the new reference before it releases the old one.
  Ref& operator=(const Ref& other) {
    Ref copy(other);
    std::swap(object_, copy.object_);
    return *this;
  }
  Ref& operator=(Ref&& other) noexcept {
    Ref taken(std::move(other));
    std::swap(object_, taken.object_);
    return *this;
  }

  // Takes over a reference that the caller owned.
  static Ref Attach(T* object) {
    Ref result;
    result.object_ = object;
    return result;
  }
  // Gives up the reference to the caller.
  [[nodiscard]] T* Detach() { return std::exchange(object_, nullptr); }
  // Gives up the reference even if the object's Release throws: destructors and unwinding let no exception
  // through.
  void Reset() noexcept {
    T* const old = std::exchange(object_, nullptr);
    if (!old) return;
    try {
      old->Release();
    } catch (...) {
    }
  }

  // For an out argument of exactly this type. Releases the current reference first.
  [[nodiscard]] T** Out() {
    Reset();
    return &object_;
  }

  // For an out argument of type void**, which receives a T*. Use it as a temporary in the call: it takes over
  // the reference when it is destroyed, at the end of the full expression.
  class VoidOut {
   public:
    explicit VoidOut(Ref& target) : target_(target) { target_.Reset(); }
    VoidOut(const VoidOut&) = delete;
    VoidOut& operator=(const VoidOut&) = delete;
    ~VoidOut() { target_.object_ = static_cast<T*>(raw_); }
    operator void**() { return &raw_; }

   private:
    Ref& target_;
    void* raw_ = nullptr;
  };
  [[nodiscard]] VoidOut OutVoid() { return VoidOut(*this); }

  T* Get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace zel
