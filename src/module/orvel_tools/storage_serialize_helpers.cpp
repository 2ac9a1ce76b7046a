#include "orvel_tools/storage_serialize_helpers.h"

#include "types/format.h"
#include "types/ref.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace orvel_tools {
namespace {

constexpr char unit[] = "orvel_tools/storage_serialize_helpers";

void AppendLocation(const zel::SerializeErrorLocation& location, zel::wstring* text) {
  text->append(u", Object name: ");
  text->append(zel::NarrowToWide(location.objectName).View());
  text->append(u", Field name: ");
  text->append(zel::NarrowToWide(location.fieldName).View());
  if (location.index == zel::SerializeErrorLocation::noIndex) return;
  text->append(u", Index: ");
  zel::AppendNumber(text, zel::FormatSpec(), location.index);
}

}  // namespace

zel::wstring SerializeFailureText(zel::IObject* context) {
  zel::wstring text(u"Serialize");
  if (!context) return text;
  zel::Ref<zel::ISerializeErrorInfo> info;
  const zel::ResultCode code = context->QueryInterface(zel::ISerializeErrorInfo::iid, info.OutVoid());
  if (zel::Failed(code) || !info) return text;
  zel::SerializeErrorLocation location;
  if (zel::Failed(info->GetErrorLocation(&location))) return text;
  try {
    AppendLocation(location, &text);
  } catch (...) {
    // The text stays as far as it got: the failure to report is that of Serialize.
  }
  return text;
}

void SerializeToStorage(zel::IServiceLocator* locator, const zel::AnyPtr& object, zel::IStorage* storage,
                        std::uint32_t flag) {
  // Declared in this order, so that context, serialiser and the copy's keeper are released in reverse.
  const zel::AnyPtr copy(object);
  zel::Ref<zel::IStorageSerializer2> serializer;
  zel::Ref<zel::IObject> context;

  zel::ResultCode code = zel::GetInterface(locator, serializer);
  if (zel::Failed(code)) {
    zel::ThrowSystemException(unit, 57, code, u"Failed to get zel::IStorageSerializer2");
  }
  code = serializer->Serialize(&copy, storage, flag, context.Out());
  if (zel::Failed(code)) zel::ThrowSystemException(unit, 62, code, SerializeFailureText(context.Get()).data);
  code = storage->Flush();
  if (zel::Failed(code)) zel::ThrowSystemException(unit, 66, code, u"IStorage::Flush");
}

}  // namespace orvel_tools
