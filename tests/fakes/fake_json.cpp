#include "tests/fakes/fake_json.h"

#include <array>
#include <cstddef>

namespace veld_report::fakes {
namespace {

class Storage final : public FakeObject<zel::IStorage> {
 public:
  Storage(FakeWorld& world, zel::IIO* stream) : FakeObject(world, "JsonStorage"), stream_(stream) {}

  zel::ResultCode ReservedStorageOperation0() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation1() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation2() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation3() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation4() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation5() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation6() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation7() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation8() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation9() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation10() override { return Reserved(); }
  zel::ResultCode ReservedStorageOperation11() override { return Reserved(); }

  zel::ResultCode Flush() override {
    Use();
    const zel::ResultCode result = WriteOut(0);
    const zel::ResultCode scripted = world().script.Enter("Flush");
    return scripted != zel::sOk ? scripted : result;
  }
  zel::ResultCode Put(std::string_view text) {
    Use();
    held_.append(text);
    return WriteOut(1);
  }

 private:
  zel::ResultCode WriteOut(std::size_t keep) {
    if (held_.size() <= keep) return zel::sOk;
    const auto count = static_cast<std::uint32_t>(held_.size() - keep);
    std::uint32_t written = 0;
    const zel::ResultCode result = stream_->Write(held_.data(), count, &written);
    if (result < 0) return result;
    if (written != count) Fault("JsonStorage: the stream took a part of a write");
    held_.erase(0, count);
    return zel::sOk;
  }

  void OnEnd() override { stream_.Reset(); }

  zel::Ref<zel::IIO> stream_;
  std::string held_;
};

class ErrorInfo final : public FakeObject<zel::ISerializeErrorInfo> {
 public:
  ErrorInfo(FakeWorld& world, SerializeContext context)
      : FakeObject(world, "SerializeErrorInfo"), context_(std::move(context)) {}

  zel::ResultCode ReservedErrorOperation() override { return Reserved(); }
  zel::ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    Use();
    if (!location->objectName.empty() || !location->fieldName.empty()) {
      Fault("SerializeErrorInfo: the strings aren't empty");
    }
    location->objectName = zel::string(std::string_view(context_.objectName));
    location->fieldName = zel::string(std::string_view(context_.fieldName));
    location->index = context_.index;
    return context_.locationResult;
  }

 private:
  const SerializeContext context_;
};

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted.push_back('\\');
    quoted.push_back(character);
  }
  return quoted + "\"";
}

zel::ResultCode WriteRecord(Storage& storage, void* object, const zel::SerObjDescriptor& descriptor);

zel::ResultCode WriteVector(Storage& storage, void* place, zel::SerVectorHelper& helper) {
  std::uint32_t count = 0;
  const zel::SerObjDescriptor* element = nullptr;
  if (helper.GetSize(place, &count) != 0 || helper.GetElementDescriptor(&element) != 0) {
    Fault("Serializer: a vector without size or element");
  }
  zel::ResultCode result = storage.Put("[");
  for (std::uint32_t i = 0; i < count && result == zel::sOk; ++i) {
    void* item = nullptr;
    if (helper.GetElement(place, i, &item) != 0) Fault("Serializer: a vector without its element");
    if (i > 0) result = storage.Put(",");
    if (result == zel::sOk) result = WriteRecord(storage, item, *element);
  }
  return result == zel::sOk ? storage.Put("]") : result;
}

zel::ResultCode WriteValue(Storage& storage, void* place, const zel::SerFieldDescriptor& field) {
  if (field.flags == zel::SerFieldDescriptor::vectorOfRecords) {
    return WriteVector(storage, place, *field.vectorHelper);
  }
  const std::string_view text = static_cast<const zel::string*>(place)->View();
  if (field.typeId == zel::SerFieldDescriptor::narrowString) return storage.Put(Quoted(text));
  if (field.typeId != wholeTextKind) Fault("Serializer: an unknown kind");
  return storage.Put(text);
}

zel::ResultCode WriteRecord(Storage& storage, void* object, const zel::SerObjDescriptor& descriptor) {
  if (descriptor.fields->typeId == wholeTextKind) return WriteValue(storage, object, *descriptor.fields);
  std::string before = "{";
  for (const auto* field = descriptor.fields; field->flags != zel::SerFieldDescriptor::endOfTable; ++field) {
    zel::ResultCode result = storage.Put(before + Quoted(field->name) + ":");
    if (result == zel::sOk) result = WriteValue(storage, static_cast<char*>(object) + field->offset, *field);
    if (result != zel::sOk) return result;
    before = ",";
  }
  return storage.Put("}");
}

constexpr std::array<zel::SerFieldDescriptor, 2> OneString(std::uint32_t kind, const char* name) {
  std::array<zel::SerFieldDescriptor, 2> fields{};
  fields[0].typeId = kind;
  fields[0].name = name;
  fields[0].offset = offsetof(TextRecord, text);
  fields[0].size = sizeof(zel::string);
  fields[1].flags = zel::SerFieldDescriptor::endOfTable;
  return fields;
}
constexpr auto textFields = OneString(zel::SerFieldDescriptor::narrowString, "text");
constexpr auto rawFields = OneString(wholeTextKind, "whole");

}  // namespace

const zel::SerObjDescriptor textRecordDescriptor{42, "TextRecord", sizeof(TextRecord), textFields.data(),
                                                 nullptr};
const zel::SerObjDescriptor rawRecordDescriptor{43, "RawRecord", sizeof(TextRecord), rawFields.data(),
                                                nullptr};

zel::ResultCode FakeJsonStorageFactory::CreateJsonStorage(zel::IIO* stream,
                                                          const zel::JsonStorageOptions* options,
                                                          zel::IStorage** out) {
  Use();
  if (const auto code = world().script.Enter("CreateJsonStorage")) return code;
  if (options->first != -1 || options->second != -1 || options->flag != 1 || options->secondFlag != 0) {
    Fault("JsonStorageFactory: options other than -1, -1, 1, 0");
  }
  *out = MakeFake<Storage>(world(), stream).Detach();
  return zel::sOk;
}

zel::ResultCode FakeSerializer::Serialize(const zel::AnyPtr* object, zel::IStorage* storage,
                                          std::uint32_t flag, zel::IObject** out) {
  Use();
  if (flag != 1) Fault("Serializer: the flag isn't 1");
  if (*out) Fault("Serializer: the context isn't null");
  if (const auto code = world().script.Enter("Serialize")) {
    if (context.given) *out = MakeFake<ErrorInfo>(world(), context).Detach();
    return code;
  }
  return WriteRecord(static_cast<Storage&>(*storage), object->object, *object->descriptor);
}

}  // namespace veld_report::fakes
