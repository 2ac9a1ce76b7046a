#include "host/json/serializer.h"

#include <utility>

#include "host/base/host_object.h"
#include "host/base/text.h"
#include "host/json/json_storage.h"
#include "host/json/record_walk.h"

namespace veld_report::host {
namespace {

class ErrorInfo final : public HostObject<zel::ISerializeErrorInfo> {
 public:
  explicit ErrorInfo(WalkLocation location) : location_(std::move(location)) {}

  zel::ResultCode ReservedErrorOperation() override { return zel::eNotImplemented; }
  zel::ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    return Guarded([&] {
      if (!location) return zel::eInvalidArgument;
      location->objectName = ToNarrow(location_.objectName);
      location->fieldName = ToNarrow(location_.fieldName);
      location->reserved = 0;
      location->index = location_.index;
      return zel::sOk;
    });
  }

 private:
  const WalkLocation location_;
};

class Serializer final : public HostObject<zel::IStorageSerializer2> {
 public:
  explicit Serializer(std::shared_ptr<const RecordStamp> stamp) : stamp_(std::move(stamp)) {}

  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t,
                            zel::IObject** context) override {
    if (!object || !storage) return zel::eInvalidArgument;
    zel::Ref<IJsonTextAccess> access;
    if (zel::Failed(storage->QueryInterface(IJsonTextAccess::iid, access.OutVoid())))
      return zel::eNotSupported;
    JsonTextWriter* const writer = access->BeginValue();
    if (!writer) return zel::eInvalidState;
    const zel::ResultCode code = Guarded([&] { return Walk(*object, *writer, context); });
    if (zel::Failed(code)) writer->Fail(code);
    return code;
  }

 private:
  zel::ResultCode Walk(const zel::AnyPtr& object, JsonTextWriter& writer, zel::IObject** context) {
    RecordWalk walk(writer, check_, stamp_ && stamp_->AddsSomething() ? stamp_.get() : nullptr);
    const zel::ResultCode code = walk.Record(object.descriptor, object.object);
    if (zel::Failed(code) && context && !*context) *context = MakeObject<ErrorInfo>(walk.Location()).Detach();
    return code;
  }

  const std::shared_ptr<const RecordStamp> stamp_;
  JsonCheck check_;
};

}  // namespace

zel::Ref<zel::IStorageSerializer2> CreateSerializer(std::shared_ptr<const RecordStamp> stamp) {
  return MakeObject<Serializer>(std::move(stamp));
}

}  // namespace veld_report::host
