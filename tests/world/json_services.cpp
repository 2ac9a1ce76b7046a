// The simulated serialisation: a producer's record is its own JSON, and a message is walked by its
// descriptor.
#include "contract/json.h"
#include "tests/world/services.h"

namespace veld_report::world {
namespace {

// A narrow string that is the text of the whole record.
constexpr std::uint32_t wholeText = 0x7f;

constexpr zel::SerFieldDescriptor textFields[] = {
    {.typeId = wholeText, .name = "text", .size = sizeof(zel::string)},
    {.flags = zel::SerFieldDescriptor::endOfTable}};

// The text reaches the stream but for its last character, which comes with Flush.
class Storage final : public Fake<zel::IStorage> {
 public:
  Storage(Host& owner, zel::IIO* stream) : Fake(owner), stream_(stream) {}
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
    auto call = Begin(Op::flush, 0);
    if (call.Refused()) return call.Planned();
    const zel::ResultCode result = text.empty() ? 0 : Write(std::string_view(text).substr(text.size() - 1));
    return result != 0 ? result : call.Planned();
  }
  zel::ResultCode Write(std::string_view piece) {
    std::uint32_t written = 0;
    const Inside inside;
    return stream_->Write(piece.data(), static_cast<std::uint32_t>(piece.size()), &written);
  }
  std::string text;

 private:
  void OnEnd() override {
    const Inside inside;
    stream_.Reset();
  }
  zel::Ref<zel::IIO> stream_;
};

// Where a serialisation stopped, as far as it can be said: that depends on the code of the failure.
class ErrorInfo final : public Fake<zel::ISerializeErrorInfo> {
 public:
  static constexpr zel::ResultCode unknown = zel::MakeResultCode(0x80000049);    // not even an ErrorInfo
  static constexpr zel::ResultCode silent = -1;                                  // an ErrorInfo that refuses
  static constexpr zel::ResultCode badName = zel::MakeResultCode(0x80000062);    // text of no locale
  static constexpr zel::ResultCode ofElement = zel::MakeResultCode(0x80000045);  // with an index

  ErrorInfo(Host& owner, zel::ResultCode code) : Fake(owner), code_(code) {}
  zel::ResultCode ReservedErrorOperation() override { return Reserved(); }
  zel::ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    const Outside outside;
    Use();
    if (code_ == silent) return zel::eNotFound;
    location->objectName = zel::string("TextRecord");
    location->fieldName = zel::string(code_ == badName ? "\xff" : "text");
    location->index = code_ == ofElement ? 0 : zel::SerializeErrorLocation::noIndex;
    return zel::sOk;
  }

 private:
  const zel::ResultCode code_;
};

void WriteJson(void* object, const zel::SerObjDescriptor& descriptor, std::string& out) {
  if (descriptor.fields->typeId == wholeText) {
    out += static_cast<zel::string*>(object)->View();
    return;
  }
  char separator = '{';
  for (const auto* field = descriptor.fields; field->flags != zel::SerFieldDescriptor::endOfTable; ++field) {
    void* place = static_cast<char*>(object) + field->offset;
    out += separator;
    out.append("\"").append(field->name).append("\":");
    separator = ',';
    if (field->flags != zel::SerFieldDescriptor::vectorOfRecords) {
      out.append("\"").append(static_cast<zel::string*>(place)->View()).append("\"");
      continue;
    }
    std::uint32_t count = 0;
    const zel::SerObjDescriptor* element = nullptr;
    field->vectorHelper->GetSize(place, &count);
    field->vectorHelper->GetElementDescriptor(&element);
    for (std::uint32_t i = 0; i < count; ++i) {
      void* item = nullptr;
      field->vectorHelper->GetElement(place, i, &item);
      out += i == 0 ? '[' : ',';
      WriteJson(item, *element, out);
    }
    out += ']';
  }
  out += '}';
}

// The numbers that the text doesn't show.
bool IsMessage(const zel::SerObjDescriptor& message) {
  const zel::SerObjDescriptor* signature = nullptr;
  const zel::SerFieldDescriptor* const fields = message.fields;
  fields[1].vectorHelper->GetElementDescriptor(&signature);
  return message.serId == 0xe688adc8 && fields[0].typeId == zel::SerFieldDescriptor::narrowString &&
         fields[1].typeId == 0x8bb286f2 && signature->serId == 0x8bb286f2 &&
         signature->fields[0].typeId == zel::SerFieldDescriptor::narrowString;
}

class JsonFactory final : public Fake<zel::IJsonStorageFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions*,
                                    zel::IStorage** out) override {
    auto call = Begin(Op::createStorage, 0);
    if (!call.Refused()) *out = host.Make<Storage>(stream);
    return call.Planned();
  }
};

class Serializer final : public Fake<zel::IStorageSerializer2> {
 public:
  using Fake::Fake;
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t,
                            zel::IObject** context) override {
    const bool isMessage = object->descriptor != &textRecord;
    auto call = Begin(Op::serialize, 0, isMessage);
    if (isMessage && !IsMessage(*object->descriptor))
      host.Fail(invariant::calls, "another description of a message");
    if (call.Refused()) {
      if (call.Planned() != ErrorInfo::unknown) *context = host.Make<ErrorInfo>(call.Planned());
      return call.Done();
    }
    auto& target = static_cast<Storage&>(*storage);
    WriteJson(object->object, *object->descriptor, target.text);
    const auto result = target.text.empty() ? 0 : target.Write({target.text.data(), target.text.size() - 1});
    return call.Done(result < 0 ? result : call.Planned());
  }
};

}  // namespace

const zel::SerObjDescriptor textRecord{43, "TextRecord", sizeof(TextRecord), textFields, nullptr};

zel::IObject* MakeJsonFactory(Host& host) { return host.Make<JsonFactory>(); }
zel::IObject* MakeSerializer(Host& host) { return host.Make<Serializer>(); }

}  // namespace veld_report::world
