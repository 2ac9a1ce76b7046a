#include "host/json/json_storage.h"

#include <utility>

#include "host/base/host_object.h"

namespace veld_report::host {
namespace {

class JsonStorage final : public HostObject<zel::IStorage, IJsonTextAccess> {
 public:
  explicit JsonStorage(zel::Ref<zel::IIO> stream) : writer_(std::move(stream)) {}

  JsonTextWriter* BeginValue() override { return std::exchange(begun_, true) ? nullptr : &writer_; }

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

class JsonStorageFactory final : public HostObject<zel::IJsonStorageFactory> {
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
