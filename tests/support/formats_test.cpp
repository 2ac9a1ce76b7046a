#include <random>
#include <sstream>
#include <string>

#include "formats/base64.h"
#include "formats/message_descriptors.h"
#include "formats/payload_text.h"
#include "gmock/gmock.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"

namespace veld_report::test {
struct Undescribed {};
}  // namespace veld_report::test

template <>
constinit const zel::SerObjDescriptor* const zel::StaticDescriptor<veld_report::test::Undescribed>::pointer =
    nullptr;

namespace veld_report::test {
namespace {

using namespace std::string_view_literals;
using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using testing::ElementsAre;
using zel::ResultCode;
using zel::SerFieldDescriptor;
using zel::SerObjDescriptor;

const std::string longText = "a text that is too long for the buffer inside";

std::string Encoded(std::string_view bytes) {
  zel::string text("what stood there before");
  orvel::veld_report::Base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), &text);
  EXPECT_EQ(text.data[text.size], '\0');
  return std::string(text.View());
}

TEST(Base64, EncodesWithThePaddedStandardAlphabet) {
  struct Case {
    std::string_view bytes, text;
  };
  for (const Case& c : {Case{""sv, ""}, Case{"f"sv, "Zg=="}, Case{"fo"sv, "Zm8="}, Case{"foo"sv, "Zm9v"},
                        Case{"foob"sv, "Zm9vYg=="}, Case{"fooba"sv, "Zm9vYmE="}, Case{"foobar"sv, "Zm9vYmFy"},
                        Case{"\xfb\xff"sv, "+/8="}, Case{"\0\0\0"sv, "AAAA"}, Case{"\xff\xff\xff"sv, "////"},
                        Case{"{\"array\":[]}"sv, "eyJhcnJheSI6W119"},
                        Case{"{\"alg\":\"none\"}\0"sv, "eyJhbGciOiJub25lIn0A"}}) {
    EXPECT_EQ(Encoded(c.bytes), c.text);
  }
}

// Reads bit for bit, in another way than the encoder writes.
std::string Decoded(const std::string& text) {
  static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bits;
  for (const char character : text.substr(0, text.find('='))) {
    const std::size_t value = alphabet.find(character);
    EXPECT_NE(value, std::string::npos);
    for (int bit = 5; bit >= 0; --bit) bits.push_back((value >> bit) & 1 ? '1' : '0');
  }
  std::string bytes;
  for (std::size_t i = 0; i + 8 <= bits.size(); i += 8) {
    bytes.push_back(static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2)));
  }
  return bytes;
}

TEST(Base64, RandomBytesComeBackAndCostOneAllocation) {
  const auto seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  SCOPED_TRACE("run with --gtest_random_seed=" + std::to_string(seed));
  std::mt19937 random(seed);
  for (std::size_t length = 0; length < 200; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    zel::string text;
    const std::int64_t before = AllocationCount();
    orvel::veld_report::Base64Encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), length, &text);
    EXPECT_EQ(AllocationCount() - before, text.size > 15 ? 1 : 0);
    ASSERT_EQ(text.size, 4 * ((length + 2) / 3));
    ASSERT_EQ(Decoded(std::string(text.View())), bytes);
  }
}

TEST(PayloadText, JoinsItemsByTheirStoredLength) {
  struct Case {
    std::vector<std::string_view> items;
    std::string_view text;
  };
  for (const Case& c : {Case{{}, "{\"array\":[]}"sv}, Case{{"{\"a\":1}"sv}, "{\"array\":[{\"a\":1}]}"sv},
                        Case{{"{\"a\":1}"sv, "{\"b\":2}"sv}, "{\"array\":[{\"a\":1},{\"b\":2}]}"sv},
                        Case{{""sv, "not \"JSON\0"sv, ""sv}, "{\"array\":[,not \"JSON\0,]}"sv}}) {
    zel::vector_t<zel::string> items;
    for (const std::string_view item : c.items) items.push_back(zel::string(item));
    const std::int64_t before = AllocationCount();
    const zel::string text = orvel::veld_report::BuildPayloadText(items);
    EXPECT_LE(AllocationCount() - before, 1);
    EXPECT_EQ(text.View(), c.text);
    EXPECT_EQ(text.allocator.Service(), nullptr);
  }
}

// The rows as "TYPE NAME FLAGS OFFSET SIZE", with "+" for a vector helper. Every other word has to be 0.
std::vector<std::string> Rows(const SerObjDescriptor& descriptor) {
  std::vector<std::string> rows;
  for (const SerFieldDescriptor* field = descriptor.fields; rows.size() < 10; ++field) {
    EXPECT_EQ(field->unused[0] | field->unused[1] | field->unused2, 0u);
    std::ostringstream row;
    row << std::hex << field->typeId << ' ' << (field->name ? field->name : "null") << ' ' << field->flags
        << ' ' << field->offset << ' ' << field->size << (field->vectorHelper ? "+" : "");
    rows.push_back(row.str());
    if (field->flags == 0xffffffff) break;
  }
  return rows;
}

const SerObjDescriptor& MessageTable() { return *zel::StaticDescriptor<Message>::pointer; }
const SerObjDescriptor& SignatureTable() { return *zel::StaticDescriptor<Signature>::pointer; }

TEST(Descriptors, DescribeTheTwoRecords) {
  EXPECT_EQ(MessageTable().serId, 0xe688adc8);
  EXPECT_STREQ(MessageTable().name, "Message");
  EXPECT_EQ(MessageTable().size, sizeof(Message));
  EXPECT_EQ(SignatureTable().serId, 0x8bb286f2);
  EXPECT_STREQ(SignatureTable().name, "Signature");
  EXPECT_EQ(SignatureTable().size, 48u);
  EXPECT_THAT(Rows(MessageTable()),
              ElementsAre("21 payload 0 0 30", "8bb286f2 signatures 12000 30 20+", "0 null ffffffff 0 0"));
  EXPECT_THAT(Rows(SignatureTable()), ElementsAre("21 protected 0 0 30", "0 null ffffffff 0 0"));
}

Message LongMessage(zel::IAllocator* service = nullptr) {
  Message message;
  message.payload = zel::string(std::string_view(longText), service);
  message.signatures = zel::vector_t<Signature>(service);
  message.signatures.append(1);
  message.signatures[0].protected_ = zel::string(std::string_view(longText), service);
  return message;
}

TEST(DescriptorHelper, MakesCopiesAndAssignsRecords) {
  zel::SerObjDescriptorHelper& helper = *MessageTable().helper;
  EXPECT_FALSE(helper.ReservedHelperOperation());
  helper.CreateAt(nullptr, nullptr);
  DryAllocator dry;
  EXPECT_EQ(helper.CreateNew(nullptr, &dry), nullptr);

  CountingAllocator one, two;
  {
    const Message source = LongMessage(&one);
    alignas(Message) unsigned char place[sizeof(Message)];
    Message& made = *reinterpret_cast<Message*>(place);
    helper.CreateAt(place, nullptr);
    EXPECT_TRUE(made.payload.empty() && made.signatures.empty());
    EXPECT_EQ(made.payload.allocator.Service(), nullptr);
    helper.DestroyAt(place);
    helper.CreateAt(place, &source);
    EXPECT_EQ(made.signatures[0].protected_.View(), longText);
    EXPECT_EQ(made.signatures.allocator.Service(), &one);

    auto* fresh = static_cast<Message*>(helper.CreateNew(nullptr, &two));
    EXPECT_EQ(two.bytes, sizeof(Message));
    fresh->signatures.append(3);
    helper.Assign(&source, fresh);
    EXPECT_EQ(fresh->payload.View(), longText);
    EXPECT_EQ(fresh->signatures.size(), 1u);
    EXPECT_EQ(fresh->signatures.allocator.Service(), &one);
    helper.Assign(fresh, fresh);
    EXPECT_EQ(fresh->signatures[0].protected_.View(), longText);
    helper.DestroyAt(fresh);
    two.Free(fresh);
    helper.DestroyAt(place);
  }
  EXPECT_EQ(one.references, 0u);
}

TEST(DescriptorHelper, AllocationFailureLeaksNothing) {
  zel::SerObjDescriptorHelper& helper = *MessageTable().helper;
  CountingAllocator one;
  {
    const Message source = LongMessage(&one);
    SweepAllocationFailures([&] {
      void* fresh = helper.CreateNew(&source, &one);
      if (fresh) helper.DestroyAt(fresh);
      if (fresh) one.Free(fresh);
      return fresh != nullptr;
    });
    SweepAllocationFailures([&] {
      Message target;
      zel::SerVectorHelper& vectorHelper = *MessageTable().fields[1].vectorHelper;
      if (const ResultCode code = vectorHelper.Resize(&target.signatures, 2); code != zel::sOk) {
        EXPECT_EQ(code, zel::eOutOfMemory);
        EXPECT_TRUE(target.signatures.empty());
        return false;
      }
      try {
        helper.Assign(&source, &target);
      } catch (...) {
        EXPECT_EQ(target.signatures.size(), 2u) << "the old elements stay";
        throw;
      }
      return true;
    });
  }
}

TEST(VectorHelper, WorksOnTheSignatures) {
  zel::SerVectorHelper& helper = *MessageTable().fields[1].vectorHelper;
  constexpr ResultCode invalid = zel::eInvalidArgument;
  zel::vector_t<Signature> vector;
  std::uint32_t number = 77;
  void* element = this;
  const SerObjDescriptor* descriptor = nullptr;

  EXPECT_EQ(helper.Resize(nullptr, 1), invalid);
  EXPECT_EQ(helper.GetSize(nullptr, &number), invalid);
  EXPECT_EQ(helper.GetSize(&vector, nullptr), invalid);
  EXPECT_EQ(helper.GetElement(nullptr, 0, &element), invalid);
  EXPECT_EQ(helper.GetElement(&vector, 0, nullptr), invalid);
  EXPECT_EQ(helper.GetElementDescriptor(nullptr), invalid);
  EXPECT_EQ(helper.GetElementSize(nullptr), invalid);
  EXPECT_EQ(helper.GetElementDescriptor(&descriptor), zel::sOk);
  EXPECT_EQ(descriptor, &SignatureTable());
  EXPECT_EQ(helper.GetElementSize(&number), zel::sOk);
  EXPECT_EQ(number, SignatureTable().size);

  EXPECT_EQ(helper.Resize(&vector, 2), zel::sOk);
  vector[0].protected_ = zel::string(longText.c_str());
  const std::int64_t before = AllocationCount();
  EXPECT_EQ(helper.Resize(&vector, 2), zel::sOk);
  EXPECT_EQ(AllocationCount(), before);
  EXPECT_EQ(helper.Resize(&vector, 3), zel::sOk);
  EXPECT_EQ(vector.capacity(), 4u);
  EXPECT_EQ(vector[0].protected_.View(), longText);
  EXPECT_TRUE(vector[2].protected_.empty());
  EXPECT_EQ(helper.GetSize(&vector, &number), zel::sOk);
  EXPECT_EQ(number, 3u);
  EXPECT_EQ(helper.GetElement(&vector, 2, &element), zel::sOk);
  EXPECT_EQ(element, &vector[2]);
  EXPECT_EQ(helper.GetElement(&vector, 3, &element), invalid);
  EXPECT_EQ(element, &vector[2]) << "untouched";
  EXPECT_EQ(helper.Resize(&vector, 0), zel::sOk);
  EXPECT_EQ(vector.capacity(), 4u);
}

TEST(VectorHelper, OfNoVectorSupportsNothingAndOfNoRecordFindsNothing) {
  zel::SerVectorHelper& helper = orvel::veld_report::noVectorHelper;
  EXPECT_EQ(helper.Resize(nullptr, 0), zel::eNotSupported);
  EXPECT_EQ(helper.GetSize(nullptr, nullptr), zel::eNotSupported);
  EXPECT_EQ(helper.GetElement(nullptr, 0, nullptr), zel::eNotSupported);
  EXPECT_EQ(helper.GetElementDescriptor(nullptr), zel::eNotSupported);
  EXPECT_EQ(helper.GetElementSize(nullptr), zel::eNotSupported);

  zel::SerVectorHelperImpl<zel::vector_t<Undescribed>> undescribed;
  const SerObjDescriptor* descriptor = &MessageTable();
  EXPECT_EQ(undescribed.GetElementDescriptor(&descriptor), zel::eNotFound);
  EXPECT_EQ(descriptor, nullptr);
}

}  // namespace
}  // namespace veld_report::test
