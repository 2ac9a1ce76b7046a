// A JSON storage and a serialiser over the two kinds that the module uses, and a record that is JSON already.
//
// The text reaches the stream in small writes, and its last byte only with Flush, so that a caller who skips
// the flush has half a text.
#pragma once

#include <string>

#include "contract/json.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

// A narrow string whose bytes stand for the whole record, braces included.
inline constexpr std::uint32_t wholeTextKind = 0x7f;

class FakeJsonStorageFactory final : public FakeObject<zel::IJsonStorageFactory> {
 public:
  explicit FakeJsonStorageFactory(FakeWorld& world) : FakeObject(world, "JsonStorageFactory") {}
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override;
};

// What a scripted failure of Serialize leaves in its context.
struct SerializeContext {
  bool given = false;
  zel::ResultCode locationResult = zel::sOk;
  std::string objectName{};
  std::string fieldName{};
  std::uint32_t index = zel::SerializeErrorLocation::noIndex;
};

class FakeSerializer final : public FakeObject<zel::IStorageSerializer2> {
 public:
  explicit FakeSerializer(FakeWorld& world) : FakeObject(world, "Serializer") {}
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** context) override;

  SerializeContext context;
};

// A record of a producer: one narrow string.
struct TextRecord {
  zel::string text;
};
extern const zel::SerObjDescriptor textRecordDescriptor;  // serId 42, {"text":"..."}
extern const zel::SerObjDescriptor rawRecordDescriptor;   // serId 43, the text itself

}  // namespace veld_report::fakes
