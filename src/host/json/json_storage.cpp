#include "host/json/json_storage.h"

#include <cstddef>
#include <new>
#include <utility>

#include "host/base/host_object.h"
#include "host/base/resident_object.h"

namespace veld_report::host {
namespace {

// Keeps the memory of the storage that a thread released last. A thread that submits makes and destroys a
// storage for each record, so this saves it all heap calls but the first.
class SpareBlock {
 public:
  static void* Take(std::size_t size) {
    if (void* const block = std::exchange(spare_, nullptr)) return block;
    return ::operator new(size);
  }
  static void Keep(void* block) noexcept {
    // Its destructor frees the kept block at the end of the thread; after that nothing is kept.
    static thread_local const AtThreadEnd end;
    static_cast<void>(end);
    if (closed_ || spare_) {
      ::operator delete(block);
    } else {
      spare_ = block;
    }
  }

 private:
  struct AtThreadEnd {
    AtThreadEnd() = default;
    ~AtThreadEnd() {
      closed_ = true;
      ::operator delete(std::exchange(spare_, nullptr));
    }
  };
  // These have no destructors, so that they are still valid for a storage that outlives the thread's objects.
  static thread_local constinit void* spare_;
  static thread_local constinit bool closed_;
};
thread_local constinit void* SpareBlock::spare_ = nullptr;
thread_local constinit bool SpareBlock::closed_ = false;

class JsonStorage final : public HostObject<zel::IStorage, IJsonTextAccess> {
 public:
  static void* operator new(std::size_t size) { return SpareBlock::Take(size); }
  static void operator delete(void* block) noexcept { SpareBlock::Keep(block); }

  explicit JsonStorage(zel::Ref<zel::IIO> stream) : writer_(std::move(stream)) {}

  JsonTextWriter* BeginValue() override { return std::exchange(begun_, true) ? nullptr : &writer_; }
  std::uint64_t TextBytes() const override { return writer_.Bytes(); }

  zel::ResultCode Flush() override {
    return Guarded([&] { return writer_.Flush(); });
  }

  zel::ResultCode ReservedStorageOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation4() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation5() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation6() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation7() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation8() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation9() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation10() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedStorageOperation11() override { return zel::eNotImplemented; }

 private:
  JsonTextWriter writer_;
  bool begun_ = false;
};

class JsonStorageFactory final : public ResidentObject<zel::IJsonStorageFactory> {
 public:
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions*,
                                    zel::IStorage** out) override {
    return Guarded([&] {
      if (!stream) return zel::eInvalidArgument;
      *out = MakeObject<JsonStorage>(zel::Ref<zel::IIO>(stream)).Detach();
      return zel::sOk;
    });
  }
};

}  // namespace

zel::Ref<zel::IJsonStorageFactory> CreateJsonStorageFactory() { return MakeObject<JsonStorageFactory>(); }

}  // namespace veld_report::host
