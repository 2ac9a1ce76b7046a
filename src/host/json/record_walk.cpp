#include "host/json/record_walk.h"

#include <bit>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/base/text.h"
#include "host/json/utc_time.h"
#include "types/basic_string.h"
#include "veld_report/field_helpers.h"
#include "veld_report/field_kinds.h"

namespace veld_report::host {
namespace {

using zel::SerFieldDescriptor;
using zel::SerObjDescriptor;

// True for a structure that is written as the value of its only field.
bool IsBareValue(const SerFieldDescriptor* table) {
  return table[0].flags != SerFieldDescriptor::endOfTable && table[0].name && table[0].name[0] == '\0' &&
         table[1].flags == SerFieldDescriptor::endOfTable;
}

bool IsKnownForm(std::uint32_t flags) {
  using namespace field_kinds;
  constexpr std::uint32_t shapes = vectorFlag | optionalFlag | mapFlag;
  return (flags & ~(recordFlag | shapes)) == 0 && std::popcount(flags & shapes) <= 1;
}

bool IsOptional(const SerFieldDescriptor& row) { return (row.flags & field_kinds::optionalFlag) != 0; }

void* FieldOf(void* object, const SerFieldDescriptor& row) { return static_cast<char*>(object) + row.offset; }

// The fields of an application's structures may be unaligned.
template <class T>
T Load(const void* value) {
  T result;
  std::memcpy(&result, value, sizeof result);
  return result;
}

template <class T>
const T& As(const void* value) {
  return *static_cast<const T*>(value);
}

zel::ResultCode WriteSigned(JsonTextWriter& out, const void* value, std::uint64_t size) {
  switch (size) {
    case 1:
      out.Signed(Load<std::int8_t>(value));
      return zel::sOk;
    case 2:
      out.Signed(Load<std::int16_t>(value));
      return zel::sOk;
    case 4:
      out.Signed(Load<std::int32_t>(value));
      return zel::sOk;
    case 8:
      out.Signed(Load<std::int64_t>(value));
      return zel::sOk;
    default:
      return zel::eInvalidArgument;
  }
}

zel::ResultCode WriteUnsigned(JsonTextWriter& out, const void* value, std::uint64_t size) {
  switch (size) {
    case 1:
      out.Unsigned(Load<std::uint8_t>(value));
      return zel::sOk;
    case 2:
      out.Unsigned(Load<std::uint16_t>(value));
      return zel::sOk;
    case 4:
      out.Unsigned(Load<std::uint32_t>(value));
      return zel::sOk;
    case 8:
      out.Unsigned(Load<std::uint64_t>(value));
      return zel::sOk;
    default:
      return zel::eInvalidArgument;
  }
}

zel::ResultCode WriteFloating(JsonTextWriter& out, const void* value, std::uint64_t size) {
  switch (size) {
    case 4:
      out.Floating(Load<float>(value));
      return zel::sOk;
    case 8:
      out.Floating(Load<double>(value));
      return zel::sOk;
    default:
      return zel::eInvalidArgument;
  }
}

}  // namespace

zel::ResultCode RecordWalk::Record(const SerObjDescriptor* descriptor, void* object) {
  if (!descriptor || !descriptor->fields || !object) return zel::eInvalidArgument;
  if (depth_ == depthLimit) return zel::eNotSupported;
  ++depth_;
  const bool isBare = IsBareValue(descriptor->fields);
  const zel::ResultCode code =
      isBare ? BareValue(descriptor->fields[0], object) : Object(*descriptor, object);
  --depth_;
  // Inside another record, that one's field says more.
  if (zel::Failed(code) && isBare && depth_ == 0) Locate(*descriptor, descriptor->fields[0]);
  return code;
}

zel::ResultCode RecordWalk::BareValue(const SerFieldDescriptor& row, void* object) {
  Elements elements;
  const zel::ResultCode code = Inspect(row, object, &elements);
  if (zel::Failed(code)) return code;
  if (!IsOptional(row) || elements.count != 0) return Contents(row, object, elements);
  out_.Raw("null");
  return zel::sOk;
}

zel::ResultCode RecordWalk::Object(const SerObjDescriptor& descriptor, void* object) {
  ++objectDepth_;
  out_.Raw('{');
  bool first = true;
  for (const SerFieldDescriptor* row = descriptor.fields; row->flags != SerFieldDescriptor::endOfTable;
       ++row) {
    zel::ResultCode code = Member(*row, object, &first);
    if (!zel::Failed(code)) code = out_.Failure();
    if (zel::Failed(code)) {
      Locate(descriptor, *row);
      return code;
    }
  }
  if (objectDepth_ == 1 && stamp_) {
    stamp_->Write(out_, first, [&descriptor](std::string_view name) {
      const SerFieldDescriptor* row = descriptor.fields;
      while (row->flags != SerFieldDescriptor::endOfTable &&
             (row->name[0] != name.front() || name != row->name)) {
        ++row;
      }
      return row->flags != SerFieldDescriptor::endOfTable;
    });
  }
  out_.Raw('}');
  --objectDepth_;
  return out_.Failure();
}

zel::ResultCode RecordWalk::Member(const SerFieldDescriptor& row, void* object, bool* first) {
  if (!row.name) return zel::eInvalidArgument;
  Elements elements;
  const zel::ResultCode code = Inspect(row, object, &elements);
  if (zel::Failed(code)) return code;
  if (IsOptional(row) && elements.count == 0) return zel::sOk;  // empty: no member
  if (!*first) out_.Raw(',');
  *first = false;
  out_.String(std::string_view(row.name));
  out_.Raw(':');
  return Contents(row, object, elements);
}

zel::ResultCode RecordWalk::Inspect(const SerFieldDescriptor& row, void* object, Elements* elements) {
  if (row.flags == SerFieldDescriptor::plainField) return zel::sOk;
  zel::SerVectorHelper* const helper = row.vectorHelper;
  if (!IsKnownForm(row.flags) || !helper) return zel::eInvalidArgument;
  zel::ResultCode code = helper->GetSize(FieldOf(object, row), &elements->count);
  if (zel::Failed(code)) return code;
  if ((row.flags & (field_kinds::vectorFlag | field_kinds::mapFlag)) == 0 &&
      (elements->count > 1 || (elements->count == 0 && !IsOptional(row)))) {
    return zel::eInvalidArgument;
  }
  if ((row.flags & field_kinds::recordFlag) == 0) return helper->GetElementSize(&elements->size);
  code = helper->GetElementDescriptor(&elements->descriptor);
  if (zel::Failed(code)) return code;
  const bool fits = elements->descriptor && elements->descriptor->serId == row.typeId;
  return fits ? zel::sOk : zel::eInvalidArgument;
}

zel::ResultCode RecordWalk::Contents(const SerFieldDescriptor& row, void* object, const Elements& elements) {
  void* const field = FieldOf(object, row);
  if (row.flags == SerFieldDescriptor::plainField) return Value(row.typeId, field, row.size);
  if ((row.flags & field_kinds::vectorFlag) != 0) return Array(row, field, elements);
  if ((row.flags & field_kinds::mapFlag) != 0) return Map(row, field, elements);
  return Element(row, field, elements, 0);
}

class RecordWalk::MapEntries final : public FieldMapHelper::Visitor {
 public:
  MapEntries(RecordWalk& walk, const SerFieldDescriptor& row, const Elements& elements)
      : walk_(walk), row_(row), elements_(elements) {}

  zel::ResultCode Entry(std::string_view key, void* value) override {
    if (!std::exchange(first_, false)) walk_.out_.Raw(',');
    walk_.out_.String(key);
    walk_.out_.Raw(':');
    const zel::ResultCode code = walk_.ElementAt(row_, value, elements_);
    return zel::Failed(code) ? code : walk_.out_.Failure();
  }

 private:
  RecordWalk& walk_;
  const SerFieldDescriptor& row_;
  const Elements& elements_;
  bool first_ = true;
};

zel::ResultCode RecordWalk::Map(const SerFieldDescriptor& row, void* field, const Elements& elements) {
  out_.Raw('{');
  MapEntries entries(*this, row, elements);
  const zel::ResultCode code = static_cast<FieldMapHelper*>(row.vectorHelper)->Visit(field, entries);
  out_.Raw('}');
  return code;
}

zel::ResultCode RecordWalk::Array(const SerFieldDescriptor& row, void* field, const Elements& elements) {
  out_.Raw('[');
  for (std::uint32_t index = 0; index < elements.count; ++index) {
    if (index != 0) out_.Raw(',');
    zel::ResultCode code = Element(row, field, elements, index);
    // Stops early on a long vector if the stream has failed.
    if (!zel::Failed(code)) code = out_.Failure();
    if (zel::Failed(code)) {
      if (location_.index == zel::SerializeErrorLocation::noIndex) location_.index = index;
      return code;
    }
  }
  out_.Raw(']');
  return zel::sOk;
}

zel::ResultCode RecordWalk::Element(const SerFieldDescriptor& row, void* field, const Elements& elements,
                                    std::uint32_t index) {
  void* element = nullptr;
  const zel::ResultCode code = row.vectorHelper->GetElement(field, index, &element);
  return zel::Failed(code) ? code : ElementAt(row, element, elements);
}

zel::ResultCode RecordWalk::ElementAt(const SerFieldDescriptor& row, void* element,
                                      const Elements& elements) {
  if (!element) return zel::eUnexpected;
  if ((row.flags & field_kinds::recordFlag) != 0) return Record(elements.descriptor, element);
  return Value(row.typeId, element, elements.size);
}

zel::ResultCode RecordWalk::Value(std::uint32_t kind, const void* value, std::uint64_t size) {
  switch (kind) {
    case field_kinds::boolean:
      out_.Boolean(Load<std::uint8_t>(value) != 0);
      return zel::sOk;
    case field_kinds::signedInteger:
      return WriteSigned(out_, value, size);
    case field_kinds::unsignedInteger:
      return WriteUnsigned(out_, value, size);
    case field_kinds::floatingPoint:
      return WriteFloating(out_, value, size);
    case field_kinds::narrowString:
      out_.String(As<zel::string>(value).View());
      return zel::sOk;
    case field_kinds::wideString:
      out_.String(As<zel::wstring>(value).View());
      return zel::sOk;
    case field_kinds::standardString:
      out_.String(As<std::string>(value));
      return zel::sOk;
    case field_kinds::standardWideString:
      out_.String(As<std::u16string>(value));
      return zel::sOk;
    case field_kinds::stringView:
      out_.String(As<std::string_view>(value));
      return zel::sOk;
    case field_kinds::jsonText:
      return JsonText(As<zel::string>(value).View());
    case field_kinds::standardJsonText:
      return JsonText(As<std::string>(value));
    case field_kinds::timeNanoseconds:
    case field_kinds::timeMicroseconds:
    case field_kinds::timeMilliseconds:
    case field_kinds::timeSeconds:
    case field_kinds::timeDays:
      return size == sizeof(std::int64_t) ? Time(kind, Load<std::int64_t>(value)) : zel::eInvalidArgument;
    default:
      return zel::eInvalidArgument;
  }
}

zel::ResultCode RecordWalk::Time(std::uint32_t kind, std::int64_t ticks) {
  UtcText text;
  const std::string_view written = WriteUtc(kind, ticks, text);
  if (written.empty()) {
    out_.Raw("null");
  } else {
    out_.Raw('"');
    out_.Raw(written);
    out_.Raw('"');
  }
  return zel::sOk;
}

zel::ResultCode RecordWalk::JsonText(std::string_view text) {
  if (objectDepth_ == 0 && stamp_) return StampedText(text);
  if (!check_.IsOneValue(text)) return zel::eInvalidArgument;
  WithoutBreaks(text);
  return out_.Failure();
}

zel::ResultCode RecordWalk::StampedText(std::string_view text) {
  const JsonCheck::Value value = check_.Read(text);
  if (!value.IsValid()) return zel::eInvalidArgument;
  if (value.IsObject()) {
    WithoutBreaks(text.substr(0, text.rfind('}')));
    stamp_->Write(out_, value.IsEmptyObject(), [&value](std::string_view name) { return value.Has(name); });
    out_.Raw('}');
  } else {
    WithoutBreaks(text);
  }
  return out_.Failure();
}

// Whitespace in a valid text is only found between tokens and is never needed there. Without line breaks an
// item is always a single line.
void RecordWalk::WithoutBreaks(std::string_view text) {
  constexpr std::string_view breaks = "\t\n\r";
  while (!text.empty() && (breaks.find(text.back()) != std::string_view::npos || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\r"), text.size()));
  while (!text.empty()) {
    const std::size_t run = std::min(text.find_first_of(breaks), text.size());
    out_.Raw(text.substr(0, run));
    text.remove_prefix(std::min(run + 1, text.size()));
  }
}

void RecordWalk::Locate(const SerObjDescriptor& descriptor, const SerFieldDescriptor& row) {
  if (located_) return;
  located_ = true;
  if (descriptor.name) location_.objectName = descriptor.name;
  if (row.name) location_.fieldName = row.name;
}

}  // namespace veld_report::host
