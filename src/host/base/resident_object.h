// ResidentObject: a HostObject that every call of an application looks up and lets go again.
//
// Its count would be a cache line that all producing cores change. While the object has a residence, such as
// a table of services, that one holds it, so nobody needs to know whether a reference is the last one. So
// the count is kept in shards, by thread. The end of the last residence adds them up, and from then on there
// is one exact count again, which may outlive every residence.
#pragma once

#include <cstdint>

#include "host/base/host_object.h"
#include "host/base/shards.h"

namespace veld_report::host {

// The count of a ResidentObject. Begins with one reference and no residence. Threads: any.
//
// A shard counts in twos; its lowest bit says that it is closed. Who finds that its shard was closed when it
// changed it counts in `whole_` instead, and what a closed shard shows no longer matters. So each change
// counts exactly once, and as long as it doesn't, the object has the reference that it is about.
class ResidentCount {
 public:
  ResidentCount() {
    shards_.ForEach([](Shard& shard) { shard.store(closed, std::memory_order_relaxed); });
  }

  // Acquires what opened the shard: a reference that is counted here may be removed in a shard that is still
  // closed, and by then the whole must have its bias.
  void Add() noexcept {
    if (shards_.Own().fetch_add(one, std::memory_order_acquire) & closed) {
      // Whoever adds has a reference, and its removal comes after this one in the order of the whole.
      whole_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  // True if that was the last one. Releases this thread's uses of the object: to EndResidence by the shard,
  // to the last removal by the whole. The last one acquires those of all others.
  bool Remove() noexcept {
    return (shards_.Own().fetch_sub(one, std::memory_order_acq_rel) & closed) &&
           whole_.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }

  // Both need a reference that stays until the return of the last EndResidence.
  void BeginResidence() {
    const std::lock_guard lock(mutex_);
    if (residences_++ != 0) return;
    whole_.fetch_add(openBias, std::memory_order_relaxed);
    // Publishes the bias to whoever finds the shard open.
    shards_.ForEach([](Shard& shard) { shard.store(0, std::memory_order_release); });
  }
  void EndResidence() noexcept {
    const std::lock_guard lock(mutex_);
    if (--residences_ != 0) return;
    std::int64_t counted = 0;
    shards_.ForEach(
        [&](Shard& shard) { counted += shard.exchange(closed, std::memory_order_acq_rel) / one; });
    whole_.fetch_add(counted - openBias, std::memory_order_acq_rel);
  }

 private:
  using Shard = std::atomic<std::int64_t>;
  static constexpr std::int64_t closed = 1;
  static constexpr std::int64_t one = 2;
  // More than there can be references, so that the whole can't reach 0 while shards are open.
  static constexpr std::int64_t openBias = std::int64_t{1} << 48;

  Shards<Shard> shards_;  // may be negative: a reference is added by one thread and removed by another
  std::atomic<std::int64_t> whole_{1};
  std::mutex mutex_;  // guards residences_, and the change between the two ways of counting
  std::uint32_t residences_ = 0;
};

// For a residence, which holds a reference to the object meanwhile.
class IResident : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x766c0002;
  virtual void BeginResidence() = 0;
  virtual void EndResidence() noexcept = 0;

 protected:
  ~IResident() = default;
};

// Its AddRef and Release return 1 as long as the object lives.
template <class... Interfaces>
class ResidentObject : public HostObject<Interfaces..., IResident> {
 public:
  std::uint32_t AddRef() override {
    count_.Add();
    return 1;
  }
  std::uint32_t Release() override {
    if (!count_.Remove()) return 1;
    delete this;
    return 0;
  }
  void BeginResidence() override { count_.BeginResidence(); }
  void EndResidence() noexcept override { count_.EndResidence(); }

 private:
  ResidentCount count_;
};

}  // namespace veld_report::host
