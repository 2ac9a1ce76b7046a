#include "orvel_tools/json_helpers.h"

#include "contract/json.h"
#include "formats/message_descriptors.h"
#include "memory_io/memory_io.h"
#include "orvel_tools/storage_serialize_helpers.h"
#include "types/ref.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace orvel_tools {
namespace {

constexpr char unit[] = "orvel_tools/json_helpers";

static_assert(zel::messageSerId == orvel::veld_report::Message::serId);

// The factory isn't needed once the storage exists.
zel::Ref<zel::IStorage> CreateStorage(zel::IServiceLocator* locator, zel::IIO* stream,
                                      const zel::JsonStorageOptions& options) {
  zel::Ref<zel::IJsonStorageFactory> factory;
  zel::ResultCode code = zel::GetInterface(locator, factory);
  if (zel::Failed(code)) {
    zel::ThrowSystemException(unit, 27, code, u"Failed to get zel::IJsonStorageFactory");
  }
  zel::Ref<zel::IStorage> storage;
  code = factory->CreateJsonStorage(stream, &options, storage.Out());
  if (zel::Failed(code)) zel::ThrowSystemException(unit, 28, code, u"CreateJsonStorage");
  return storage;
}

}  // namespace

zel::string SerializeToJson(zel::IServiceLocator* locator, const zel::AnyPtr& object) {
  zel::string text;
  const zel::JsonStorageOptions options;
  // In a scope after the text, so that storage and stream are gone before it is returned or destroyed.
  {
    zel::Ref<zel::IIO> stream;
    const zel::ResultCode code = zel::memory_io::CreateIOFromBuffer(&text, stream.Out());
    if (zel::Failed(code)) zel::ThrowSystemException(unit, 57, code, u"CreateIOFromBuffer");
    const zel::Ref<zel::IStorage> storage = CreateStorage(locator, stream.Get(), options);
    SerializeToStorage(locator, object, storage.Get(), options.flag != 0 ? 1 : 0);
  }
  return text;
}

zel::string SerializeMessageToJson(zel::IServiceLocator* locator,
                                   const orvel::veld_report::Message& message) {
  const zel::SerObjDescriptor* descriptor = zel::StaticDescriptor<orvel::veld_report::Message>::pointer;
  if (!descriptor) descriptor = zel::LookupMessageDescriptor(locator);
  // A serialiser only reads the object.
  const zel::AnyPtr object(const_cast<orvel::veld_report::Message*>(&message), descriptor);
  return SerializeToJson(locator, object);
}

}  // namespace orvel_tools
