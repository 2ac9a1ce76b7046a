// One serialisation through the two services, as the module does it, into a string.
#pragma once

#include <algorithm>
#include <string>

#include "contract/io.h"
#include "host/base/host_object.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"

namespace veld_report::host {

// A stream that can be told to fail or to be full. Of a storage it expects Write and nothing else.
class StringStream final : public HostObject<zel::IIO> {
 public:
  std::string text;
  std::uint64_t roomBytes = UINT64_MAX;   // a write beyond it is cut short
  zel::ResultCode beyondRoom = zel::sOk;  // what the cut write answers

  zel::ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) override {
    *bytesWritten = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, roomBytes - text.size()));
    text.append(static_cast<const char*>(buffer), *bytesWritten);
    return *bytesWritten == count ? zel::sOk : beyondRoom;
  }
  zel::ResultCode Read(void*, std::uint32_t, std::uint32_t*) override { return zel::eUnexpected; }
  zel::ResultCode Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode GetPosition(std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode GetSize(std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode SetSize(std::uint64_t) override { return zel::eUnexpected; }
  zel::ResultCode Flush() override { return zel::eUnexpected; }
};

struct Serialized {
  zel::ResultCode code = zel::sOk;   // of Serialize
  zel::ResultCode flush = zel::sOk;  // of Flush
  std::string text{};
  std::string objectName{}, fieldName{};
  std::uint32_t index = 0;
};

inline Serialized Serialize(const zel::AnyPtr& object,
                            const zel::Ref<StringStream>& stream = MakeObject<StringStream>(),
                            const std::shared_ptr<const RecordStamp>& stamp = {}) {
  Serialized result;
  const zel::JsonStorageOptions options;
  zel::Ref<zel::IStorage> storage;
  result.code = CreateJsonStorageFactory()->CreateJsonStorage(stream.Get(), &options, storage.Out());
  if (zel::Failed(result.code)) return result;
  zel::Ref<zel::IObject> context;
  result.code = CreateSerializer(stamp)->Serialize(&object, storage.Get(), options.flag, context.Out());
  result.flush = storage->Flush();
  result.text = stream->text;
  zel::Ref<zel::ISerializeErrorInfo> info;
  if (context) context->QueryInterface(zel::ISerializeErrorInfo::iid, info.OutVoid());
  zel::SerializeErrorLocation location;
  if (info) info->GetErrorLocation(&location);
  result.objectName = location.objectName.View();
  result.fieldName = location.fieldName.View();
  result.index = location.index;
  return result;
}

// Of a struct with a VELD_RECORD.
template <class Record>
Serialized SerializeRecord(Record& record,
                           const zel::Ref<StringStream>& stream = MakeObject<StringStream>()) {
  return Serialize(zel::AnyPtr(&record, VeldRecordDescriptor(&record)), stream);
}

}  // namespace veld_report::host
