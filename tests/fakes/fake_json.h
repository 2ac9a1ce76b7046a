// A JSON storage and a serialiser over the two kinds that the module uses, and a record that is JSON already.
//
// The text reaches the stream in small writes, and its last byte only with Flush, so that a caller who skips
// the flush has half a text.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <utility>

#include "contract/json.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

class FakeStorage final : public FakeObject<zel::IStorage> {
 public:
  FakeStorage(FakeWorld& world, zel::IIO* stream) : FakeObject(world, "JsonStorage"), stream_(stream) {}

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
    if (scripted != zel::sOk) return scripted;
    return result < 0 ? result : world().Done();
  }
  zel::ResultCode Put(std::string_view text) {
    Use();
    held_.append(text);
    return WriteOut(1);
  }

 private:
  zel::ResultCode WriteOut(std::size_t keep) {
    while (held_.size() > keep) {
      const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(held_.size() - keep, 16));
      std::uint32_t written = 0;
      const zel::ResultCode result = stream_->Write(held_.data(), count, &written);
      if (result < 0) return result;
      if (written != count) Fault("JsonStorage: the stream took a part of a write");
      held_.erase(0, count);
    }
    return zel::sOk;
  }
  void OnEnd() override { stream_.Reset(); }

  zel::Ref<zel::IIO> stream_;
  std::string held_;
};

class FakeJsonStorageFactory final : public FakeObject<zel::IJsonStorageFactory> {
 public:
  explicit FakeJsonStorageFactory(FakeWorld& world) : FakeObject(world, "JsonStorageFactory") {}
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override {
    Use();
    if (const auto code = world().script.Enter("CreateJsonStorage")) return code;
    if (options->first != -1 || options->second != -1 || options->flag != 1 || options->secondFlag != 0) {
      Fault("JsonStorageFactory: options other than -1, -1, 1, 0");
    }
    *out = MakeFake<FakeStorage>(world(), stream).Detach();
    return world().Done();
  }
};

// What a scripted failure of Serialize leaves in its context.
struct SerializeContext {
  bool given = false;
  zel::ResultCode locationResult = zel::sOk;
  std::string objectName{};
  std::string fieldName{};
  std::uint32_t index = zel::SerializeErrorLocation::noIndex;
};

class FakeErrorInfo final : public FakeObject<zel::ISerializeErrorInfo> {
 public:
  FakeErrorInfo(FakeWorld& world, SerializeContext context)
      : FakeObject(world, "SerializeErrorInfo"), context_(std::move(context)) {}

  zel::ResultCode ReservedErrorOperation() override { return Reserved(); }
  zel::ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    Use();
    if (const auto code = world().script.Enter("GetErrorLocation")) return code;
    location->objectName = zel::string(std::string_view(context_.objectName));
    location->fieldName = zel::string(std::string_view(context_.fieldName));
    location->index = context_.index;
    return context_.locationResult != zel::sOk ? context_.locationResult : world().Done();
  }

 private:
  const SerializeContext context_;
};

// A narrow string whose bytes stand for the whole record, braces included.
inline constexpr std::uint32_t wholeTextKind = 0x7f;

class FakeSerializer final : public FakeObject<zel::IStorageSerializer2> {
 public:
  explicit FakeSerializer(FakeWorld& world) : FakeObject(world, "Serializer") {}
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** out) override {
    Use();
    if (flag != 1) Fault("Serializer: the flag isn't 1");
    if (*out) Fault("Serializer: the context isn't null");
    if (const auto code = world().script.Enter("Serialize")) {
      if (context.given) *out = MakeFake<FakeErrorInfo>(world(), context).Detach();
      return code;
    }
    const zel::ResultCode done = world().Done();
    const zel::ResultCode put =
        static_cast<FakeStorage&>(*storage).Put(Json(object->object, *object->descriptor));
    return put < 0 ? put : done;
  }

  SerializeContext context;

 private:
  static std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char character : text) {
      if (character == '"' || character == '\\') quoted.push_back('\\');
      quoted.push_back(character);
    }
    return quoted + "\"";
  }
  static std::string Elements(void* place, zel::SerVectorHelper& helper) {
    std::uint32_t count = 0;
    const zel::SerObjDescriptor* element = nullptr;
    if (helper.GetSize(place, &count) != 0 || helper.GetElementDescriptor(&element) != 0) {
      Fault("Serializer: a vector without size or element");
    }
    std::string text;
    for (std::uint32_t i = 0; i < count; ++i) {
      void* item = nullptr;
      if (helper.GetElement(place, i, &item) != 0) Fault("Serializer: a vector without its element");
      text += (i > 0 ? "," : "") + Json(item, *element);
    }
    return text;
  }
  static std::string Json(void* object, const zel::SerObjDescriptor& descriptor) {
    std::string text;
    for (const auto* field = descriptor.fields; field->flags != zel::SerFieldDescriptor::endOfTable;
         ++field) {
      void* place = static_cast<char*>(object) + field->offset;
      if (field->typeId == wholeTextKind) return std::string(static_cast<const zel::string*>(place)->View());
      text += (text.empty() ? "" : ",") + Quoted(field->name) + ":";
      if (field->flags == zel::SerFieldDescriptor::vectorOfRecords) {
        text += "[" + Elements(place, *field->vectorHelper) + "]";
      } else if (field->typeId == zel::SerFieldDescriptor::narrowString) {
        text += Quoted(static_cast<const zel::string*>(place)->View());
      } else {
        Fault("Serializer: an unknown kind");
      }
    }
    return "{" + text + "}";
  }
};

// A record of a producer: one narrow string.
struct TextRecord {
  zel::string text;
};

constexpr std::array<zel::SerFieldDescriptor, 2> OneString(std::uint32_t kind, const char* name) {
  std::array<zel::SerFieldDescriptor, 2> fields{};
  fields[0].typeId = kind;
  fields[0].name = name;
  fields[0].offset = offsetof(TextRecord, text);
  fields[0].size = sizeof(zel::string);
  fields[1].flags = zel::SerFieldDescriptor::endOfTable;
  return fields;
}
inline constexpr auto textFields = OneString(zel::SerFieldDescriptor::narrowString, "text");
inline constexpr auto rawFields = OneString(wholeTextKind, "whole");
// {"text":"..."}, and the text itself.
inline const zel::SerObjDescriptor textRecordDescriptor{42, "TextRecord", sizeof(TextRecord),
                                                        textFields.data(), nullptr};
inline const zel::SerObjDescriptor rawRecordDescriptor{43, "RawRecord", sizeof(TextRecord), rawFields.data(),
                                                       nullptr};

}  // namespace veld_report::fakes
