// How a serialisation fails: broken descriptors, helpers and streams, and the place that is reported.
#include <gtest/gtest.h>

#include <vector>

#include "tests/host/json_serialize.h"
#include "veld_report/field_helpers.h"
#include "veld_report/field_kinds.h"

namespace veld_report::host {
namespace {

using namespace field_kinds;

// A helper whose answers a test writes. By default: one element, at the field itself.
class ScriptedHelper final : public zel::SerVectorHelper {
 public:
  zel::ResultCode sizeCode = zel::sOk, elementCode = zel::sOk, descriptorCode = zel::sOk;
  std::uint32_t count = 1;
  bool nullElement = false;
  const zel::SerObjDescriptor* descriptor = nullptr;

  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eUnexpected; }
  zel::ResultCode GetSize(const void*, std::uint32_t* out) override {
    *out = count;
    return sizeCode;
  }
  // The last element is the one that fails.
  zel::ResultCode GetElement(void* vector, std::uint32_t index, void** out) override {
    EXPECT_LT(index, count);
    *out = nullElement ? nullptr : vector;
    return index + 1 == count ? elementCode : zel::sOk;
  }
  zel::ResultCode GetElementDescriptor(const zel::SerObjDescriptor** out) override {
    *out = descriptor;
    return descriptorCode;
  }
  zel::ResultCode GetElementSize(std::uint32_t* out) override {
    *out = 4;
    return zel::sOk;
  }
};

// A record of two numbers, the second of which is there to be broken: as it is, as a vector of numbers or as
// one of records.
struct Subject {
  std::uint32_t record[2] = {7, 8};
  ScriptedHelper helper{};
  zel::SerFieldDescriptor row = {.typeId = unsignedInteger, .name = "field", .offset = 4, .size = 4};
  zel::SerFieldDescriptor innerTable[2] = {{.typeId = unsignedInteger, .name = "inner", .size = 4}, endRow};
  zel::SerObjDescriptor inner = {.serId = 2, .name = "Inner", .size = 4, .fields = innerTable};

  void AsVector() {
    row.flags = vectorFlag;
    row.vectorHelper = &helper;
  }
  void AsRecords() {
    row.flags = vectorFlag | recordFlag;
    row.vectorHelper = &helper;
    row.typeId = inner.serId;
    helper.descriptor = &inner;
  }
  Serialized Run() {
    const zel::SerFieldDescriptor table[] = {
        {.typeId = unsignedInteger, .name = "before", .size = 4}, row, endRow};
    const zel::SerObjDescriptor descriptor = {.serId = 1, .name = "Outer", .size = 8, .fields = table};
    return Serialize(zel::AnyPtr(record, &descriptor));
  }
};

TEST(JsonFailures, EachBreakHasItsCodeAndItsPlace) {
  const struct {
    const char* what;
    void (*breakIt)(Subject&);
    zel::ResultCode code;
    const char* objectName = "Outer";
    const char* fieldName = "field";
    std::uint32_t index = zel::SerializeErrorLocation::noIndex;
  } cases[] = {
      {"vector and optional", [](Subject& it) { it.row.flags = 0x6000; }, zel::eInvalidArgument},
      {"integer of 3 bytes", [](Subject& it) { it.row.size = 3; }, zel::eInvalidArgument},
      {"GetSize fails", [](Subject& it) { it.AsVector(), it.helper.sizeCode = zel::eNotFound; },
       zel::eNotFound},
      {"third element fails",
       [](Subject& it) { it.AsVector(), it.helper.count = 3, it.helper.elementCode = zel::eNotFound; },
       zel::eNotFound, "Outer", "field", 2},
      {"null element", [](Subject& it) { it.AsVector(), it.helper.nullElement = true; }, zel::eUnexpected,
       "Outer", "field", 0},
      {"two in an optional",
       [](Subject& it) { it.AsVector(), it.row.flags = optionalFlag, it.helper.count = 2; },
       zel::eInvalidArgument},
      {"no descriptor", [](Subject& it) { it.AsRecords(), it.helper.descriptor = nullptr; },
       zel::eInvalidArgument},
      {"descriptor code", [](Subject& it) { it.AsRecords(), it.helper.descriptorCode = zel::eNotFound; },
       zel::eNotFound},
      {"another serId", [](Subject& it) { it.AsRecords(), it.row.typeId = 3; }, zel::eInvalidArgument},
      {"no table", [](Subject& it) { it.AsRecords(), it.inner.fields = nullptr; }, zel::eInvalidArgument,
       "Outer", "field", 0},
      {"nested record absent",
       [](Subject& it) { it.AsRecords(), it.row.flags = recordFlag, it.helper.count = 0; },
       zel::eInvalidArgument},
      {"broken inside", [](Subject& it) { it.AsRecords(), it.innerTable[0].size = 5; }, zel::eInvalidArgument,
       "Inner", "inner", 0},
      {"contains itself", [](Subject& it) { it.AsRecords(), it.row.offset = 0, it.innerTable[0] = it.row; },
       zel::eNotSupported, "Inner", "field", 0},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    Subject subject;
    each.breakIt(subject);
    const Serialized result = subject.Run();
    EXPECT_EQ(result.code, each.code);
    EXPECT_EQ(result.flush, each.code);
    EXPECT_TRUE(result.located);
    EXPECT_EQ(result.objectName, each.objectName);
    EXPECT_EQ(result.fieldName, each.fieldName);
    EXPECT_EQ(result.index, each.index);
  }
}

// At every length that the text can be cut at: never more than the stream took, always its code.
TEST(JsonFailures, StreamThatFailsOrIsFullFailsTheText) {
  const std::string whole = R"({"v":4294967295})";
  for (std::uint64_t room = 0; room < whole.size(); ++room) {
    for (const zel::ResultCode answer : {zel::sOk, zel::eOutOfMemory}) {
      const auto stream = MakeObject<StringStream>();
      stream->roomBytes = room;
      stream->beyondRoom = answer;
      const Serialized result = SerializeValue(UINT32_MAX, unsignedInteger, 0, nullptr, "v", stream);
      EXPECT_EQ(result.flush, answer == zel::sOk ? zel::eOutOfSpace : answer);
      EXPECT_EQ(result.text, whole.substr(0, room));
    }
  }
}

TEST(JsonFailures, LongTextLeavesInPiecesAndStopsAtTheFirstFailure) {
  const std::vector<std::uint32_t> numbers(100000, 4000000000);
  auto* const helper = &fieldHelper<VectorHelper<std::vector<std::uint32_t>>>;
  const Serialized whole = SerializeValue(numbers, unsignedInteger, vectorFlag, helper);
  EXPECT_EQ(whole.flush, zel::sOk);
  EXPECT_EQ(whole.text.size(), 7 + 11 * numbers.size());
  const auto full = MakeObject<StringStream>();
  full->roomBytes = 10000;
  const Serialized cut = SerializeValue(numbers, unsignedInteger, vectorFlag, helper, "v", full);
  EXPECT_EQ(cut.code, zel::eOutOfSpace);
  EXPECT_LT(cut.index, 2000u);  // a walk that went on would end at 100000
}

}  // namespace
}  // namespace veld_report::host
