// How a serialisation fails: broken descriptors, helpers and streams, and the place that is reported.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <vector>

#include "host/json/field_helpers.h"
#include "host/json/field_kinds.h"
#include "host/json/record_walk.h"
#include "tests/host/json_serialize.h"

namespace veld_report::host {
namespace {

using zel::SerFieldDescriptor;
constexpr SerFieldDescriptor endRow = {.flags = SerFieldDescriptor::endOfTable};

// A helper whose answers a test writes. By default: one element, at the field itself.
class ScriptedHelper final : public zel::SerVectorHelper {
 public:
  zel::ResultCode sizeCode = zel::sOk, elementCode = zel::sOk, descriptorCode = zel::sOk;
  std::uint32_t count = 1;
  std::uint32_t failingIndex = 0;
  bool nullElement = false;
  const zel::SerObjDescriptor* descriptor = nullptr;

  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eUnexpected; }
  zel::ResultCode GetSize(const void*, std::uint32_t* out) override {
    *out = count;
    return sizeCode;
  }
  zel::ResultCode GetElement(void* vector, std::uint32_t index, void** out) override {
    EXPECT_LT(index, count);
    *out = nullElement ? nullptr : vector;
    return index == failingIndex ? elementCode : zel::sOk;
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

struct Record {
  std::uint32_t before = 7;
  std::uint32_t field = 8;
};

class BrokenDescriptor : public testing::Test {
 protected:
  Serialized Run() {
    const SerFieldDescriptor table[] = {
        {.typeId = field_kinds::unsignedInteger, .name = "before", .size = 4}, row_, endRow};
    const zel::SerObjDescriptor descriptor = {.serId = 1, .name = "Outer", .size = 8, .fields = table};
    return Serialize(zel::AnyPtr(&record_, &descriptor));
  }

  Record record_;
  ScriptedHelper helper_;
  SerFieldDescriptor row_ = {.typeId = field_kinds::unsignedInteger, .name = "field", .offset = 4, .size = 4};
  SerFieldDescriptor innerTable_[2] = {{.typeId = field_kinds::unsignedInteger, .name = "inner", .size = 4},
                                       endRow};
  zel::SerObjDescriptor inner_ = {.serId = 2, .name = "Inner", .size = 4, .fields = innerTable_};
};

TEST_F(BrokenDescriptor, EachBreakHasItsCodeAndItsPlace) {
  const auto asVector = [&] { row_.flags = field_kinds::vectorFlag, row_.vectorHelper = &helper_; };
  const auto asRecords = [&] {
    asVector();
    row_.flags |= field_kinds::recordFlag, row_.typeId = 2, helper_.descriptor = &inner_;
  };
  struct Case {
    const char* what;
    std::function<void()> breakIt;
    zel::ResultCode code;
    std::string objectName = "Outer";
    std::string fieldName = "field";
    std::uint32_t index = zel::SerializeErrorLocation::noIndex;
  };
  const Case cases[] = {
      {"unknown kind", [&] { row_.typeId = 0x7777; }, zel::eInvalidArgument},
      {"unknown flag", [&] { row_.flags = 1; }, zel::eInvalidArgument},
      {"vector and optional", [&] { row_.flags = 0x6000; }, zel::eInvalidArgument},
      {"no name", [&] { row_.name = nullptr; }, zel::eInvalidArgument, "Outer", ""},
      {"integer of 3 bytes", [&] { row_.size = 3; }, zel::eInvalidArgument},
      {"floating of 2 bytes", [&] { row_.typeId = field_kinds::floatingPoint, row_.size = 2; },
       zel::eInvalidArgument},
      {"vector without helper", [&] { row_.flags = field_kinds::vectorFlag; }, zel::eInvalidArgument},
      {"GetSize fails", [&] { asVector(), helper_.sizeCode = zel::eNotFound; }, zel::eNotFound},
      {"third element fails",
       [&] { asVector(), helper_.count = 4, helper_.failingIndex = 2, helper_.elementCode = zel::eNotFound; },
       zel::eNotFound, "Outer", "field", 2},
      {"null element", [&] { asVector(), helper_.nullElement = true; }, zel::eUnexpected, "Outer", "field",
       0},
      {"two in an optional", [&] { asVector(), row_.flags = field_kinds::optionalFlag, helper_.count = 2; },
       zel::eInvalidArgument},
      {"no descriptor", [&] { asRecords(), helper_.descriptor = nullptr; }, zel::eInvalidArgument},
      {"descriptor code", [&] { asRecords(), helper_.descriptorCode = zel::eNotFound; }, zel::eNotFound},
      {"another serId", [&] { asRecords(), row_.typeId = 3; }, zel::eInvalidArgument},
      {"no table", [&] { asRecords(), inner_.fields = nullptr; }, zel::eInvalidArgument, "Outer", "field", 0},
      {"nested record absent", [&] { asRecords(), row_.flags = field_kinds::recordFlag, helper_.count = 0; },
       zel::eInvalidArgument},
      {"broken inside", [&] { asRecords(), helper_.count = 2, innerTable_[0].size = 5; },
       zel::eInvalidArgument, "Inner", "inner", 0},
      {"contains itself",
       [&] { asRecords(), innerTable_[0] = row_, innerTable_[0].offset = 0, innerTable_[0].name = "self"; },
       zel::eNotSupported, "Inner", "self", 0},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    const SerFieldDescriptor row = row_, inner = innerTable_[0];
    const zel::SerObjDescriptor descriptor = inner_;
    helper_ = ScriptedHelper();
    each.breakIt();
    const Serialized result = Run();
    EXPECT_EQ(result.code, each.code);
    EXPECT_EQ(result.flush, each.code);
    EXPECT_TRUE(result.located);
    EXPECT_EQ(result.objectName, each.objectName);
    EXPECT_EQ(result.fieldName, each.fieldName);
    EXPECT_EQ(result.index, each.index);
    row_ = row, innerTable_[0] = inner, inner_ = descriptor;
  }
}

TEST_F(BrokenDescriptor, DeepestAllowedNestingIsWritten) {
  row_.flags = field_kinds::recordFlag, row_.typeId = 2, row_.vectorHelper = &helper_,
  helper_.descriptor = &inner_;
  // One outer record and, by chains of distinct descriptors, as many inner ones as still fit.
  std::vector<zel::SerObjDescriptor> descriptors(RecordWalk::depthLimit - 1, inner_);
  std::vector<std::array<SerFieldDescriptor, 2>> tables(descriptors.size());
  std::vector<ScriptedHelper> helpers(descriptors.size());
  for (std::size_t i = 0; i < descriptors.size(); ++i) {
    const bool last = i + 1 == descriptors.size();
    tables[i] = {last ? innerTable_[0] : row_, endRow};
    tables[i][0].offset = 0;
    tables[i][0].vectorHelper = last ? nullptr : &helpers[i];
    if (!last) helpers[i].descriptor = &descriptors[i + 1];
    descriptors[i].fields = tables[i].data();
  }
  helper_.descriptor = &descriptors[0];
  const Serialized result = Run();
  EXPECT_EQ(result.code, zel::sOk);
  EXPECT_NE(result.text.find(R"("inner":8)"), std::string::npos);
}

TEST_F(BrokenDescriptor, NullRecordOrDescriptorIsRefused) {
  EXPECT_EQ(Serialize(zel::AnyPtr(&record_, nullptr)).code, zel::eInvalidArgument);
  EXPECT_EQ(Serialize(zel::AnyPtr(nullptr, &inner_)).code, zel::eInvalidArgument);
}

// Fails at every length that the text can be cut at: never more than the stream took, always its code.
TEST_F(BrokenDescriptor, StreamThatFailsOrIsFullFailsTheText) {
  const std::string whole = Serialize(zel::AnyPtr(&record_, &inner_)).text;
  for (std::uint64_t room = 0; room < whole.size(); ++room) {
    for (const zel::ResultCode answer : {zel::sOk, zel::eOutOfMemory}) {
      auto stream = MakeObject<StringStream>();
      stream->roomBytes = room;
      stream->beyondRoom = answer;
      const Serialized result = Serialize(zel::AnyPtr(&record_, &inner_), stream);
      EXPECT_EQ(result.flush, answer == zel::sOk ? zel::eOutOfSpace : answer);
      EXPECT_EQ(result.text, whole.substr(0, room));
      EXPECT_EQ(stream->writes, 1u);
    }
  }
}

TEST(JsonStorage, LongTextLeavesInPiecesAndStopsAtTheFirstFailure) {
  std::vector<std::uint32_t> numbers(100000, 4000000000);
  const SerFieldDescriptor table[] = {
      {.typeId = field_kinds::unsignedInteger,
       .name = "n",
       .flags = field_kinds::vectorFlag,
       .size = sizeof numbers,
       .vectorHelper = &fieldHelper<VectorHelper<std::vector<std::uint32_t>>>},
      endRow};
  const zel::SerObjDescriptor descriptor = {.name = "Long", .size = sizeof numbers, .fields = table};
  const Serialized whole = Serialize(zel::AnyPtr(&numbers, &descriptor));
  EXPECT_EQ(whole.flush, zel::sOk);
  EXPECT_EQ(whole.text.size(), 7 + 11 * numbers.size());
  auto full = MakeObject<StringStream>();
  full->roomBytes = 10000;
  const Serialized cut = Serialize(zel::AnyPtr(&numbers, &descriptor), full);
  EXPECT_EQ(cut.code, zel::eOutOfSpace);
  EXPECT_EQ(cut.fieldName, "n");
  EXPECT_LT(cut.index, 2000u);  // a walk that went on would end at 100000
}

TEST(JsonStorage, TakesOneRecordAndOnlyItsOwnSerialiser) {
  auto stream = MakeObject<StringStream>();
  zel::Ref<zel::IStorage> storage;
  ASSERT_EQ(CreateJsonStorageFactory()->CreateJsonStorage(stream.Get(), nullptr, storage.Out()), zel::sOk);
  std::uint32_t value = 1;
  const SerFieldDescriptor table[] = {{.typeId = field_kinds::unsignedInteger, .name = "v", .size = 4},
                                      endRow};
  const zel::SerObjDescriptor descriptor = {.name = "One", .size = 4, .fields = table};
  const zel::AnyPtr record(&value, &descriptor);
  const auto serializer = CreateSerializer();
  zel::Ref<zel::IObject> context;
  EXPECT_EQ(serializer->Serialize(&record, storage.Get(), 1, context.Out()), zel::sOk);
  EXPECT_EQ(serializer->Serialize(&record, storage.Get(), 1, context.Out()), zel::eInvalidState);
  EXPECT_EQ(storage->Flush(), zel::sOk);
  EXPECT_EQ(stream->text, R"({"v":1})");
}

}  // namespace
}  // namespace veld_report::host
