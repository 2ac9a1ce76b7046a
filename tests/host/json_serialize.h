// One serialisation through the two services, as the module does it.
#pragma once

#include <string>

#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "tests/host/string_stream.h"

namespace veld_report::host {

struct Serialized {
  zel::ResultCode code = zel::sOk;   // of Serialize
  zel::ResultCode flush = zel::sOk;  // of Flush
  std::string text;
  bool located = false;
  std::string objectName;
  std::string fieldName;
  std::uint32_t index = 0;
};

inline Serialized Serialize(const zel::AnyPtr& object, zel::Ref<StringStream> stream = {}) {
  Serialized result;
  if (!stream) stream = MakeObject<StringStream>();
  const zel::JsonStorageOptions options;
  zel::Ref<zel::IStorage> storage;
  result.code = CreateJsonStorageFactory()->CreateJsonStorage(stream.Get(), &options, storage.Out());
  if (zel::Failed(result.code)) return result;
  zel::Ref<zel::IObject> context;
  result.code = CreateSerializer()->Serialize(&object, storage.Get(), options.flag, context.Out());
  result.flush = storage->Flush();
  result.text = stream->text;
  if (!context) return result;
  zel::Ref<zel::ISerializeErrorInfo> info;
  if (zel::Failed(context->QueryInterface(zel::ISerializeErrorInfo::iid, info.OutVoid()))) return result;
  zel::SerializeErrorLocation location;
  result.located = info->GetErrorLocation(&location) == zel::sOk;
  result.objectName = location.objectName.View();
  result.fieldName = location.fieldName.View();
  result.index = location.index;
  return result;
}

}  // namespace veld_report::host
