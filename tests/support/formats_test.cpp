#include <sstream>
#include <string>
#include <vector>

#include "formats/message_descriptors.h"
#include "gmock/gmock.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::Message;
using orvel::veld_report::Signature;
using testing::ElementsAre;

// A table as "ID NAME", then its rows as "TYPE NAME FLAGS OFFSET SIZE", with "+" for a vector helper. Every
// other word has to be 0.
std::vector<std::string> Rows(const zel::SerObjDescriptor& descriptor) {
  std::vector<std::string> rows;
  std::ostringstream row;
  row << std::hex << descriptor.serId << ' ' << descriptor.name;
  for (const auto* field = descriptor.fields; rows.size() < 10; ++field) {
    rows.push_back(std::exchange(row, std::ostringstream()).str());
    EXPECT_EQ(field->unused[0] | field->unused[1] | field->unused2, 0u);
    row << std::hex << field->typeId << ' ' << (field->name ? field->name : "null") << ' ' << field->flags
        << ' ' << field->offset << ' ' << field->size << (field->vectorHelper ? "+" : "");
    if (field->flags == zel::SerFieldDescriptor::endOfTable) break;
  }
  return rows;
}

TEST(DescriptorsTest, DescribeTheTwoRecords) {
  EXPECT_THAT(Rows(*zel::StaticDescriptor<Message>::pointer),
              ElementsAre("e688adc8 Message", "21 payload 0 0 30", "8bb286f2 signatures 12000 30 20+"));
  EXPECT_THAT(Rows(*zel::StaticDescriptor<Signature>::pointer),
              ElementsAre("8bb286f2 Signature", "21 protected 0 0 30"));
}

}  // namespace
}  // namespace veld_report::tests
