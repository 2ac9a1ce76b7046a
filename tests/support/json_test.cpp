#include <memory>
#include <optional>
#include <string>

#include "formats/base64.h"
#include "formats/message_descriptors.h"
#include "formats/payload_text.h"
#include "gmock/gmock.h"
#include "orvel_tools/json_helpers.h"
#include "orvel_tools/storage_serialize_helpers.h"
#include "tests/fakes/fake_json.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"
#include "tests/support/locale_scope.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/util/rtl_impl/anyptr_helpers.h"

namespace veld_report::test {
namespace {

using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using testing::ElementsAre;
using testing::IsEmpty;
using zel::ResultCode;

constexpr ResultCode scripted = zel::MakeResultCode(0x80000777);

// The two JSON services behind a locator that may lack one of them.
class Json : public testing::Test {
 protected:
  Json()
      : factory(fakes::MakeFake<fakes::FakeJsonStorageFactory>(world)),
        serializer(fakes::MakeFake<fakes::FakeSerializer>(world)),
        keeper(fakes::MakeFake<Keeper>(world)) {}
  ~Json() override {
    factory.Reset();
    serializer.Reset();
    keeper.Reset();
    EXPECT_THAT(world.ledger.Alive(), IsEmpty());
  }
  struct Keeper final : fakes::FakeObject<zel::IObject> {
    explicit Keeper(fakes::FakeWorld& world) : FakeObject(world, "Keeper") {}
  };

  void PutServices() {
    locator.log = &lookUps;
    locator.Put<zel::IJsonStorageFactory>(factory.Get());
    locator.Put<zel::IStorageSerializer2>(serializer.Get());
  }
  zel::AnyPtr Record() { return {&record, &fakes::textRecordDescriptor, keeper.Get()}; }
  // The failure of one serialisation as "FILE(LINE) CODE TEXT".
  std::string Failure() {
    try {
      orvel_tools::SerializeToJson(&locator, Record());
      return "none";
    } catch (const zel::SystemException& exception) {
      zel::string text;
      zel::WideToUtf8(exception.message.View(), &text);
      EXPECT_EQ(keeper->References(), 1u);
      return std::string(exception.file) + "(" + std::to_string(exception.line) + ") " +
             (exception.code == scripted               ? "scripted"
              : exception.code == FakeLocator::missing ? "missing"
                                                       : std::to_string(exception.code)) +
             " " + std::string(text.View());
    }
  }

  fakes::FakeWorld world;
  zel::Ref<fakes::FakeJsonStorageFactory> factory;
  zel::Ref<fakes::FakeSerializer> serializer;
  zel::Ref<Keeper> keeper;
  std::vector<std::string> lookUps;
  FakeLocator locator;
  fakes::TextRecord record{zel::string("a value that needs more than the buffer inside")};
};

TEST_F(Json, RecordBecomesTextInAStringOfItsOwn) {
  PutServices();
  const std::string expected = "{\"text\":\"a value that needs more than the buffer inside\"}";
  const zel::string first = orvel_tools::SerializeToJson(&locator, Record());
  record.text = zel::string("other");
  const zel::string second = orvel_tools::SerializeToJson(&locator, Record());
  EXPECT_EQ(first.View(), expected);
  EXPECT_EQ(second.View(), "{\"text\":\"other\"}");
  EXPECT_EQ(first.allocator.Service(), nullptr);
  EXPECT_EQ(keeper->References(), 1u);
  const std::string getFactory = "get " + std::to_string(0x2d52630a),
                    getSerializer = "get " + std::to_string(0x7cc64bff);
  EXPECT_THAT(lookUps, ElementsAre(getFactory, getSerializer, getFactory, getSerializer))
      << "nothing is kept";
}

TEST_F(Json, EachFailureNamesItsUnitItsLineAndItsText) {
  const std::string helpers = "orvel_tools/json_helpers", serialize = "orvel_tools/storage_serialize_helpers";
  EXPECT_EQ(Failure(), helpers + "(27) missing Failed to get zel::IJsonStorageFactory");
  locator.Put<zel::IJsonStorageFactory>(factory.Get());
  EXPECT_EQ(Failure(), serialize + "(57) missing Failed to get zel::IStorageSerializer2");
  PutServices();
  world.script.Fail("CreateJsonStorage", scripted);
  EXPECT_EQ(Failure(), helpers + "(28) scripted CreateJsonStorage");
  world.script.Fail("Flush", scripted);
  EXPECT_EQ(Failure(), serialize + "(66) scripted IStorage::Flush");
  world.script.Fail("Serialize", scripted);
  EXPECT_EQ(Failure(), serialize + "(62) scripted Serialize");
  world.script.Fail("Flush", 5);
  EXPECT_EQ(Failure(), "none") << "a positive code is a success";
  FailAllocationAfter(0);
  const std::string dry = Failure();
  EXPECT_TRUE(StopFailingAllocations());
  EXPECT_EQ(dry, helpers + "(57) " + std::to_string(zel::eOutOfMemory) + " CreateIOFromBuffer");
}

TEST_F(Json, FailureOfSerializeTellsWhereItStopped) {
  struct Case {
    fakes::SerializeContext context;
    std::string text;
  };
  const auto at = [](std::string object, std::string field, std::uint32_t index) {
    return fakes::SerializeContext{true, true, zel::sOk, std::move(object), std::move(field), index};
  };
  PutServices();
  const LocaleScope locale("C");
  for (const Case& c :
       {Case{at("Message", "signatures", 0),
             "Serialize, Object name: Message, Field name: signatures, Index: 0"},
        Case{at("Message", "payload", 0xffffffff), "Serialize, Object name: Message, Field name: payload"},
        Case{at("", "", 0xfffffffe), "Serialize, Object name: , Field name: , Index: 4294967294"},
        Case{{true, false, zel::sOk, "A", "b", 0}, "Serialize"},
        Case{{true, true, zel::eNotFound, "A", "b", 0}, "Serialize"},
        // A name that the locale lacks cuts the text short.
        Case{at("caf\xc3\xa9", "b", 0), "Serialize, Object name: "},
        Case{at("A", "\xff", 0), "Serialize, Object name: A, Field name: "}}) {
    serializer->context = c.context;
    world.script.Fail("Serialize", scripted);
    EXPECT_EQ(Failure(), "orvel_tools/storage_serialize_helpers(62) scripted " + c.text);
  }
}

class LocationWithoutMemory final : public StackObject<zel::ISerializeErrorInfo> {
 public:
  ResultCode QueryInterface(zel::InterfaceId, void** out) override {
    AddRef();
    *out = this;
    return zel::sOk;
  }
  ResultCode ReservedErrorOperation() override { return zel::eNotImplemented; }
  ResultCode GetErrorLocation(zel::SerializeErrorLocation* location) override {
    location->objectName.append("Name");
    location->index = 5;
    return zel::sOk;
  }
};

TEST(SerializeFailureText, StandsAsFarAsMemoryWent) {
  LocationWithoutMemory context;
  const std::u16string whole = u"Serialize, Object name: Name, Field name: , Index: 5";
  for (std::int64_t n = 0; n < 100; ++n) {
    const std::int64_t before = LiveBlocks();
    FailAllocationAfter(n);
    bool complete = false;
    try {
      const zel::wstring text = orvel_tools::SerializeFailureText(&context);
      EXPECT_TRUE(whole.starts_with(text.View()));
      complete = text.View() == whole;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(n, 0) << "only for the first word";
    }
    const bool failed = StopFailingAllocations();
    EXPECT_EQ(LiveBlocks(), before);
    EXPECT_NE(complete, failed);
    if (!failed) return;
  }
  FAIL() << "no end";
}

TEST_F(Json, WorkedExampleOfTheWire) {
  struct Case {
    std::vector<const char*> items;
    std::string signatureBlock;
    std::string body;
  };
  const std::string unsignedBlock(reinterpret_cast<const char*>(orvel::veld_report::unsignedSignatureBlock),
                                  sizeof(orvel::veld_report::unsignedSignatureBlock));
  PutServices();
  for (const Case& c :
       {Case{{"{\"a\":1}", "{\"b\":2}"},
             unsignedBlock,
             "{\"payload\":\"eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19\","
             "\"signatures\":[{\"protected\":\"eyJhbGciOiJub25lIn0A\"}]}"},
        Case{{"{\"a\":1}", "{\"b\":2}"},
             "\xfb\xff",
             "{\"payload\":\"eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19\",\"signatures\":[{\"protected\":\"+/"
             "8=\"}]}"},
        Case{{"{\"a\":1}"},
             "",
             "{\"payload\":\"eyJhcnJheSI6W3siYSI6MX1dfQ==\",\"signatures\":[{\"protected\":\"\"}]}"}}) {
    const auto encode = [](std::string_view bytes, zel::string* out) {
      orvel::veld_report::Base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(),
                                       out);
    };
    zel::vector_t<zel::string> items;
    for (const char* item : c.items) items.push_back(zel::string(item));
    Message message;
    encode(orvel::veld_report::BuildPayloadText(items).View(), &message.payload);
    Signature signature;
    encode(c.signatureBlock, &signature.protected_);
    message.signatures.push_back(signature);
    EXPECT_EQ(orvel_tools::SerializeMessageToJson(&locator, message).View(), c.body);
  }
}

// A host's descriptors by serId.
template <class I>
class FakeMetaInfo final : public StackObject<I> {
 public:
  explicit FakeMetaInfo(const zel::SerObjDescriptor* known) : known_(known) {}
  ResultCode ReservedRegistryOperation() {
    ADD_FAILURE() << "never called";
    return zel::eNotImplemented;
  }
  ResultCode GetDescriptor(std::uint32_t serId, const zel::SerObjDescriptor** out) override {
    EXPECT_EQ(serId, 0xe688adc8);
    EXPECT_GT(this->references, 0u);
    if (!known_) return scripted;
    *out = known_;
    return zel::sOk;
  }

 private:
  const zel::SerObjDescriptor* known_;
};

TEST(LookupMessageDescriptor, AsksTheProviderAndThenTheRegistry) {
  const zel::SerObjDescriptor ofProvider{}, ofRegistry{};
  enum Service { missing, empty, filled };
  struct Case {
    Service provider, registry;
    const zel::SerObjDescriptor* found;
    std::int32_t line;
    ResultCode code;
  };
  for (const Case& c :
       {Case{filled, missing, &ofProvider, 0, 0}, Case{filled, filled, &ofProvider, 0, 0},
        Case{empty, filled, &ofRegistry, 0, 0}, Case{missing, filled, &ofRegistry, 0, 0},
        Case{missing, missing, nullptr, 41, FakeLocator::missing},
        Case{empty, missing, nullptr, 41, FakeLocator::missing}, Case{missing, empty, nullptr, 43, scripted},
        Case{empty, empty, nullptr, 43, scripted}}) {
    FakeMetaInfo<zel::MetaInfoProvider> provider(c.provider == filled ? &ofProvider : nullptr);
    FakeMetaInfo<zel::MetaInfoRegistry> registry(c.registry == filled ? &ofRegistry : nullptr);
    FakeLocator locator;
    if (c.provider != missing) locator.Put<zel::MetaInfoProvider>(&provider);
    if (c.registry != missing) locator.Put<zel::MetaInfoRegistry>(&registry);
    const zel::SerObjDescriptor* found = nullptr;
    try {
      found = zel::LookupMessageDescriptor(&locator);
      EXPECT_EQ(c.line, 0);
    } catch (const zel::InvalidResultException& exception) {
      EXPECT_STREQ(exception.file, "zel/util/rtl_impl/anyptr_helpers");
      EXPECT_EQ(exception.line, c.line);
      EXPECT_EQ(exception.code, c.code);
      EXPECT_EQ(exception.message.View(), c.line == 41
                                              ? u"No meta info provider"
                                              : u"This structure is not registered at meta info provider");
    }
    EXPECT_EQ(found, c.found);
    EXPECT_EQ(provider.references + registry.references, 0u);
  }
}

}  // namespace
}  // namespace veld_report::test
