#include "types/basic_string.h"

#include <string>

#include "gtest/gtest.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"

namespace veld_report::test {
namespace {

using zel::string;
using zel::wstring;

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
  EXPECT_EQ(string(zel::types::WithCapacity{16}).capacity, 16u);
  EXPECT_EQ(string(zel::types::WithCapacity{15}).capacity, 15u);
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

TEST(String, CopiesLiveInTheAllocatorOfTheirSource) {
  CountingAllocator one, two;
  const string source(std::string_view(longText), &one);
  string copy(source);
  EXPECT_EQ(one.references, 2u);
  EXPECT_EQ(one.blocks, 2);

  // One allocator: the buffer stays.
  const char* buffer = copy.data;
  const string same("same allocator", &one);
  copy = same;
  ExpectText<char>(copy, "same allocator");
  EXPECT_EQ(copy.data, buffer);

  // Another one: it is taken over, and the old block goes back.
  string other(std::string_view(longText), &two);
  other = source;
  ExpectText<char>(other, longText);
  EXPECT_EQ(other.allocator.Service(), &one);
  EXPECT_EQ(two.blocks, 0);
  EXPECT_EQ(two.references, 0u);
}

TEST(String, MovesAndSwapsHandBlocksOverAndCopyInlineText) {
  CountingAllocator one, two;
  for (const std::string& text : {std::string("inline"), longText}) {
    string source(std::string_view(text), &one);
    const char* block = source.data;
    string moved(std::move(source));
    ExpectText<char>(moved, text);
    EXPECT_EQ(moved.data == block, text == longText);
    ExpectText<char>(source, "");
    EXPECT_EQ(one.references, 2u) << "the source keeps its reference";

    string target(std::string_view(longText), &two);
    target = std::move(moved);
    EXPECT_EQ(two.blocks + static_cast<int>(two.references), 0);
    string& self = target;
    target = std::move(self);
    target = self;
    ExpectText<char>(target, text);

    string left("left");
    left.swap(target);
    ExpectText<char>(left, text);
    ExpectText<char>(target, "left");
    EXPECT_EQ(left.allocator.Service(), &one);
    EXPECT_EQ(target.allocator.Service(), nullptr);
    target.swap(left);
    ExpectText<char>(target, text);
    ExpectText<char>(left, "left");
  }
}

TEST(String, OrderComparesSignedBytes) {
  using namespace std::string_view_literals;
  const std::pair<std::string_view, std::string_view> pairs[] = {
      {"\x80"sv, "\x7f"sv}, {"\xff"sv, "\0"sv}, {"ab"sv, "abc"sv}, {""sv, "\xff"sv}, {"ab\xff"sv, "aba"sv}};
  for (const auto& [smaller, larger] : pairs) {
    EXPECT_TRUE(string(smaller) < string(larger)) << smaller;
    EXPECT_FALSE(string(larger) < string(smaller)) << smaller;
  }
  EXPECT_FALSE(string("ab") < string("ab"));
}

TEST(String, RefusesLengthsBeyondTheLimit) {
  string text("abc");
  wstring wide(u"abc");
  const auto expect = [](const char* what, auto&& operation) {
    try {
      operation();
      ADD_FAILURE() << what;
    } catch (const std::length_error& error) {
      EXPECT_STREQ(error.what(), what);
    }
  };
  // Volatile, so that the compiler doesn't foresee what can't be allocated.
  const volatile std::uint64_t narrowLimit = 0xfffffffffffffffe - 3, wideLimit = 0x7fffffffffffffff - 3;
  const auto reserve = "zel::basic_string_t::reserve_extra()";
  expect(reserve, [&] { text.reserve_extra(narrowLimit); });
  expect(reserve, [&] { wide.reserve_extra(wideLimit); });
  expect("zel::basic_string_t::resize_extra_at", [&] { text.resize_extra_at(3, narrowLimit); });
  expect("zel::basic_string_t constructor", [] { string(zel::types::WithCapacity{UINT64_MAX}); });
  // One below the limit it is only memory that is missing.
  EXPECT_THROW(text.reserve_extra(narrowLimit - 1), std::bad_alloc);
  EXPECT_THROW(wide.reserve_extra(wideLimit - 1), std::bad_alloc);
  ExpectText<char>(text, "abc");
  ExpectText<char16_t>(wide, u"abc");
}

TEST(String, AllocationFailureLeavesTheStringAsItWas) {
  CountingAllocator one;
  for (zel::IAllocator* service :
       {static_cast<zel::IAllocator*>(nullptr), static_cast<zel::IAllocator*>(&one)}) {
    SweepAllocationFailures([&] {
      const string source(std::string_view(longText), service);
      string copy(source), target("short");
      const auto unchanged = [&](auto&& operation) {
        try {
          operation();
        } catch (...) {
          ExpectText<char>(copy, longText);
          ExpectText<char>(target, "short");
          throw;
        }
        copy.assign(longText.data(), longText.size());
      };
      unchanged([&] { copy.append(longText); });
      unchanged([&] { copy.insert(copy.data + 1, 30); });
      unchanged([&] { copy.resize_extra_at(0, 500); });
      unchanged([&] { copy.append(copy.data, copy.size); });
      unchanged([&] { target = source; });
      return true;
    });
  }
}

}  // namespace
}  // namespace veld_report::test
