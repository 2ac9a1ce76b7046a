#include "types/basic_string.h"

#include <string>

#include "gtest/gtest.h"

namespace veld_report::tests {
namespace {

using zel::string;

const std::string longText = "a text that is too long for the buffer inside";

template <class C>
void ExpectText(const zel::basic_string_t<C>& text, std::basic_string_view<C> expected) {
  EXPECT_EQ(text.View(), expected);
  EXPECT_EQ(text.data[text.size], C());
  EXPECT_LE(text.size, text.capacity);
  EXPECT_EQ(text.data == text.inlineBuffer, text.capacity == zel::basic_string_t<C>::inlineCapacity);
}

template <class C>
std::uint64_t CapacityAfter(std::uint64_t start, std::uint64_t added) {
  const std::basic_string<C> first(start, C('x')), second(added, C('y'));
  zel::basic_string_t<C> text{std::basic_string_view<C>(first)};
  text.append(second);
  ExpectText<C>(text, first + second);
  return text.capacity;
}

TEST(String, GrowsToTheLargerOfTwiceTheCapacityAndWhatIsNeeded) {
  struct Case {
    std::uint64_t start, added, narrow, wide;
  };
  for (const Case& c : {Case{0, 7, 15, 7}, Case{7, 1, 15, 14}, Case{15, 0, 15, 15}, Case{15, 1, 30, 30},
                        Case{15, 31, 46, 46}, Case{30, 1, 60, 60}, Case{0, 100, 100, 100}}) {
    EXPECT_EQ(CapacityAfter<char>(c.start, c.added), c.narrow) << c.start << "+" << c.added;
    EXPECT_EQ(CapacityAfter<char16_t>(c.start, c.added), c.wide) << c.start << "+" << c.added;
  }
}

TEST(String, AppendsAndInsertsPiecesOfItself) {
  for (const std::string& text : {std::string("short"), std::string("exactly 15 char"), longText}) {
    string changed(text);
    changed.append(changed.data, changed.size);
    ExpectText<char>(changed, text + text);
    changed.insert(changed.data + 1, 4);
    ExpectText<char>(changed, text.substr(1, 4) + text + text);
    changed.assign(changed.data + 4, text.size());
    ExpectText<char>(changed, text);
    ExpectText<char>(zel::types::Prepend("in front of ", string(text)), "in front of " + text);
  }
}

}  // namespace
}  // namespace veld_report::tests
