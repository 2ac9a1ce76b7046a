#include "bench/common/plain_json.h"

#include <charconv>
#include <string_view>
#include <utility>

#include "contract/io.h"
#include "host/base/host_object.h"
#include "host/json/field_kinds.h"

namespace veld_report::bench {
namespace {

class IStreamAccess : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x4b1d7a91;
  virtual zel::IIO* Stream() = 0;

 protected:
  ~IStreamAccess() = default;
};

class PlainStorage final : public host::HostObject<zel::IStorage, IStreamAccess> {
 public:
  explicit PlainStorage(zel::IIO* stream) : stream_(stream) {}
  zel::IIO* Stream() override { return stream_.Get(); }
  zel::ResultCode Flush() override { return zel::sOk; }
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

 private:
  const zel::Ref<zel::IIO> stream_;
};

class PlainStorageFactory final : public host::HostObject<zel::IJsonStorageFactory> {
 public:
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions*,
                                    zel::IStorage** out) override {
    return host::Guarded([&] {
      *out = host::MakeObject<PlainStorage>(stream).Detach();
      return zel::sOk;
    });
  }
};

// Of a storage of this unit; it keeps the stream. Null for another.
zel::IIO* StreamOf(zel::IStorage* storage) {
  zel::Ref<IStreamAccess> access;
  if (zel::Failed(storage->QueryInterface(IStreamAccess::iid, access.OutVoid()))) return nullptr;
  return access->Stream();
}

void Write(zel::IIO* stream, std::string_view text) {
  std::uint32_t written = 0;
  stream->Write(text.data(), static_cast<std::uint32_t>(text.size()), &written);
}

class TokenSerializer final : public host::HostObject<zel::IStorageSerializer2> {
 public:
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t,
                            zel::IObject**) override {
    zel::IIO* const stream = StreamOf(storage);
    if (!stream) return zel::eNotSupported;
    std::string_view separator = "{";
    for (const zel::SerFieldDescriptor* field = object->descriptor->fields;
         field->flags != zel::SerFieldDescriptor::endOfTable; ++field) {
      Write(stream, std::exchange(separator, ","));
      Text(stream, field->name);
      Write(stream, ":");
      Value(stream, *field, static_cast<const char*>(object->object) + field->offset);
    }
    Write(stream, "}");
    return zel::sOk;
  }

 private:
  static void Text(zel::IIO* stream, std::string_view text) {
    Write(stream, "\"");
    Write(stream, text);
    Write(stream, "\"");
  }
  template <class T>
  static void Number(zel::IIO* stream, T value) {
    char digits[32];
    const char* const end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    Write(stream, std::string_view(digits, static_cast<std::size_t>(end - digits)));
  }
  static void Value(zel::IIO* stream, const zel::SerFieldDescriptor& field, const char* place) {
    namespace kinds = host::field_kinds;
    switch (field.typeId) {
      case kinds::standardString:
        return Text(stream, *reinterpret_cast<const std::string*>(place));
      case kinds::signedInteger:
        return Number(stream, *reinterpret_cast<const std::int64_t*>(place));
      case kinds::floatingPoint:
        return Number(stream, *reinterpret_cast<const double*>(place));
      case kinds::boolean:
        return Write(stream, *place ? "true" : "false");
      default:
        return Write(stream, "null");
    }
  }
};

class PlainSerializer final : public host::HostObject<zel::IStorageSerializer2> {
 public:
  explicit PlainSerializer(std::string text) : text_(std::move(text)) {}

  zel::ResultCode Serialize(const zel::AnyPtr*, zel::IStorage* storage, std::uint32_t,
                            zel::IObject**) override {
    zel::IIO* const stream = StreamOf(storage);
    if (!stream) return zel::eNotSupported;
    Write(stream, text_);
    return zel::sOk;
  }

 private:
  const std::string text_;
};

}  // namespace

zel::Ref<zel::IJsonStorageFactory> CreatePlainStorages() { return host::MakeObject<PlainStorageFactory>(); }
zel::Ref<zel::IStorageSerializer2> CreateTokenSerializer() { return host::MakeObject<TokenSerializer>(); }

zel::Ref<zel::IStorageSerializer2> CreatePlainSerializer(std::string text) {
  return host::MakeObject<PlainSerializer>(std::move(text));
}

}  // namespace veld_report::bench
