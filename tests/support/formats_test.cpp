#include <sstream>
#include <string>
#include <vector>

#include "formats/base64.h"
#include "formats/message_descriptors.h"
#include "gmock/gmock.h"
#include "tests/fakes/fake_memory.h"

namespace veld_report::tests {
namespace {

using namespace std::string_view_literals;
using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using testing::ElementsAre;
using zel::SerFieldDescriptor;
using zel::SerObjDescriptor;

const std::string longText = "a text that is too long for the buffer inside";

TEST(Base64, EncodesWithThePaddedStandardAlphabet) {
  struct Case {
    std::string_view bytes, text;
  };
  for (const Case& c : {Case{""sv, ""}, Case{"f"sv, "Zg=="}, Case{"fo"sv, "Zm8="}, Case{"foo"sv, "Zm9v"},
                        Case{"foob"sv, "Zm9vYg=="}, Case{"fooba"sv, "Zm9vYmE="}, Case{"foobar"sv, "Zm9vYmFy"},
                        Case{"\xfb\xff"sv, "+/8="}, Case{"\0\0\0"sv, "AAAA"}, Case{"\xff\xff\xff"sv, "////"},
                        Case{"{\"array\":[]}"sv, "eyJhcnJheSI6W119"},
                        Case{"{\"alg\":\"none\"}\0"sv, "eyJhbGciOiJub25lIn0A"}}) {
    zel::string text("what stood there before");
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(c.bytes.data());
    orvel::veld_report::Base64Encode(bytes, c.bytes.size(), &text);
    EXPECT_EQ(text.View(), c.text);
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

TEST(DescriptorHelper, MakesCopiesAndAssignsRecords) {
  zel::SerObjDescriptorHelper& helper = *MessageTable().helper;
  fakes::FakeWorld world;
  const auto one = fakes::MakeFake<fakes::FakeAllocator>(world);
  Message source;
  source.payload = zel::string(std::string_view(longText), one.Get());
  source.signatures = zel::vector_t<Signature>(one.Get());
  source.signatures.append(1);
  source.signatures[0].protected_ = zel::string(std::string_view(longText), one.Get());
  alignas(Message) unsigned char place[sizeof(Message)];
  Message& made = *reinterpret_cast<Message*>(place);
  helper.CreateAt(place, nullptr);
  EXPECT_TRUE(made.payload.empty() && made.signatures.empty());
  helper.DestroyAt(place);
  auto* copy = static_cast<Message*>(helper.CreateNew(&source, one.Get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->signatures[0].protected_.View(), longText);
  EXPECT_EQ(copy->signatures.allocator.Service(), one.Get());
  helper.DestroyAt(copy);
  one->Free(copy);
  Message target;
  EXPECT_EQ(MessageTable().fields[1].vectorHelper->Resize(&target.signatures, 3), zel::sOk);
  helper.Assign(&source, &target);
  helper.Assign(&target, &target);
  EXPECT_EQ(target.payload.View(), longText);
  EXPECT_EQ(target.signatures[0].protected_.View(), longText);
}

}  // namespace
}  // namespace veld_report::tests
