#include "host/json/json_record.h"

#include <cstddef>

#include "veld_report/field_helpers.h"
#include "veld_report/field_kinds.h"

namespace veld_report::host {
namespace {

constexpr zel::SerFieldDescriptor fields[] = {
    {.typeId = field_kinds::standardJsonText,
     .name = "",
     .flags = zel::SerFieldDescriptor::plainField,
     .offset = offsetof(JsonRecord, text),
     .size = sizeof(std::string)},
    {.flags = zel::SerFieldDescriptor::endOfTable},
};
constexpr zel::SerObjDescriptor descriptor = {
    .serId = 0x4a736f6e,
    .name = "JsonRecord",
    .size = sizeof(JsonRecord),
    .fields = fields,
    .helper = &fieldHelper<RecordHelper<JsonRecord>>,
};

}  // namespace

const zel::SerObjDescriptor* JsonRecord::Descriptor() { return &descriptor; }

}  // namespace veld_report::host
