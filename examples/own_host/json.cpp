#include "json.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace own_host {
namespace {

// Collects the text and writes it to the stream in Flush. How the serialiser reaches `text` is up to the two
// services; the twelve operations before Flush are free for that.
class JsonStorage final : public Counted<zel::IStorage> {
 public:
  explicit JsonStorage(zel::IIO* stream) : stream_(stream) {}

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

  zel::ResultCode Flush() override {
    std::uint32_t written = 0;
    const zel::ResultCode code =
        stream_->Write(text.data(), static_cast<std::uint32_t>(text.size()), &written);
    text.clear();
    return code;
  }

  std::string text;

 private:
  zel::Ref<zel::IIO> stream_;
};

void AppendString(std::string_view value, std::string* text) {
  *text += '"';
  for (const char c : value) {
    if (c == '"' || c == '\\') {
      *text += '\\';
      *text += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[7];
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c));
      *text += escape;
    } else {
      *text += c;
    }
  }
  *text += '"';
}

zel::ResultCode AppendRecord(void* object, const zel::SerObjDescriptor* descriptor, std::string* text);

zel::ResultCode AppendVector(void* vector, zel::SerVectorHelper* helper, std::string* text) {
  std::uint32_t count = 0;
  const zel::SerObjDescriptor* element = nullptr;
  zel::ResultCode code = helper->GetSize(vector, &count);
  if (!zel::Failed(code)) code = helper->GetElementDescriptor(&element);
  *text += '[';
  for (std::uint32_t i = 0; i < count && !zel::Failed(code); ++i) {
    if (i != 0) *text += ',';
    void* item = nullptr;
    code = helper->GetElement(vector, i, &item);
    if (!zel::Failed(code)) code = AppendRecord(item, element, text);
  }
  *text += ']';
  return code;
}

zel::ResultCode AppendRecord(void* object, const zel::SerObjDescriptor* descriptor, std::string* text) {
  *text += '{';
  // The table has no count: a row with these flags ends it.
  for (const auto* row = descriptor->fields; row->flags != zel::SerFieldDescriptor::endOfTable; ++row) {
    if (row != descriptor->fields) *text += ',';
    AppendString(row->name, text);
    *text += ':';
    void* const field = static_cast<char*>(object) + row->offset;
    if (row->flags == zel::SerFieldDescriptor::vectorOfRecords) {
      const zel::ResultCode code = AppendVector(field, row->vectorHelper, text);
      if (zel::Failed(code)) return code;
    } else if (row->typeId == zel::SerFieldDescriptor::narrowString) {
      AppendString(static_cast<const zel::string*>(field)->View(), text);
    } else {
      return zel::eNotSupported;
    }
  }
  *text += '}';
  return zel::sOk;
}

}  // namespace

zel::ResultCode JsonStorageFactory::CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions*,
                                                      zel::IStorage** out) {
  *out = Make<JsonStorage>(stream).Detach();
  return zel::sOk;
}

zel::ResultCode Serializer::Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t,
                                      zel::IObject**) {
  return AppendRecord(object->object, object->descriptor, &static_cast<JsonStorage*>(storage)->text);
}

}  // namespace own_host
