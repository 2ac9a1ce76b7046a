#include "types/basic_string.h"

#include <string>

#include "gmock/gmock.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"

namespace veld_report::test {
namespace {

using zel::string;
using zel::wstring;

const std::string longText = "a text that is too long for the buffer inside";

template <class C>
void ExpectInvariants(const zel::basic_string_t<C>& text) {
  EXPECT_EQ(text.data[text.size], C());
  EXPECT_LE(text.size, text.capacity);
  EXPECT_EQ(text.data == text.inlineBuffer, text.capacity == zel::basic_string_t<C>::inlineCapacity);
}

TEST(String, GrowsToTheLargerOfTwiceTheCapacityAndWhatIsNeeded) {
  struct Case {
    std::uint64_t start, added, narrowCapacity, wideCapacity;
  };
  for (const Case& c : {Case{0, 7, 15, 7}, Case{7, 1, 15, 14}, Case{15, 0, 15, 15}, Case{15, 1, 30, 30},
                        Case{15, 31, 46, 46}, Case{30, 1, 60, 60}, Case{0, 100, 100, 100}}) {
    string narrow{std::string(c.start, 'x')};
    narrow.append(std::string(c.added, 'y'));
    EXPECT_EQ(narrow.View(), std::string(c.start, 'x') + std::string(c.added, 'y'));
    EXPECT_EQ(narrow.capacity, c.narrowCapacity) << c.start << "+" << c.added;
    ExpectInvariants(narrow);
    wstring wide{std::u16string(c.start, u'x')};
    wide.append(std::u16string(c.added, u'y'));
    EXPECT_EQ(wide.View(), std::u16string(c.start, u'x') + std::u16string(c.added, u'y'));
    EXPECT_EQ(wide.capacity, c.wideCapacity) << c.start << "+" << c.added;
    ExpectInvariants(wide);
  }
}

TEST(String, AppendsAndInsertsPiecesOfItself) {
  for (const std::string& text : {std::string("short"), std::string("exactly 15 char"), longText}) {
    string doubled(text);
    doubled.append(doubled.data, doubled.size);
    EXPECT_EQ(doubled.View(), text + text);
    ExpectInvariants(doubled);
    string tail(text);
    tail.append(tail.data + 2, 3);
    EXPECT_EQ(tail.View(), text + text.substr(2, 3));
    string front(text);
    front.insert(front.data + 1, 4);
    EXPECT_EQ(front.View(), text.substr(1, 4) + text);
    ExpectInvariants(front);
    string shrunk(text);
    shrunk.assign(shrunk.data + 1, 3);
    EXPECT_EQ(shrunk.View(), text.substr(1, 3));
    EXPECT_EQ(zel::types::Prepend("A constant in front: ", string(text)).View(),
              "A constant in front: " + text);
  }
}

TEST(String, CopiesLiveInTheAllocatorOfTheirSource) {
  CountingAllocator one, two;
  {
    const string source(std::string_view(longText), &one);
    string copy(source);
    EXPECT_EQ(one.references, 2u);
    EXPECT_EQ(one.blocks, 2);

    // One allocator: the buffer stays.
    const char* buffer = copy.data;
    const string other(std::string_view("other"), &one);
    copy = other;
    EXPECT_EQ(copy.View(), "other");
    EXPECT_EQ(copy.data, buffer);

    // Another one: it is taken over, and the old block goes back.
    string target(std::string_view(longText), &two);
    target = source;
    EXPECT_EQ(target.View(), longText);
    EXPECT_EQ(target.allocator.Service(), &one);
    EXPECT_EQ(two.blocks, 0);
    EXPECT_EQ(two.references, 0u);
    target = string("x");
    EXPECT_EQ(target.allocator.Service(), nullptr);
    ExpectInvariants(target);
  }
}

TEST(String, MovesHandBlocksOverAndCopyInlineText) {
  CountingAllocator one, two;
  for (const std::string& text : {std::string("inline"), longText}) {
    string source(std::string_view(text), &one);
    const char* block = source.data;
    string moved(std::move(source));
    EXPECT_EQ(moved.View(), text);
    EXPECT_EQ(moved.data == block, text == longText);
    EXPECT_TRUE(source.empty() && source.IsInline());
    EXPECT_EQ(one.references, 2u) << "the source keeps its reference";
    ExpectInvariants(source);

    string target(std::string_view(longText), &two);
    target = std::move(moved);
    EXPECT_EQ(target.View(), text);
    EXPECT_EQ(two.blocks, 0);
    EXPECT_EQ(two.references, 0u);
    string& self = target;
    target = std::move(self);
    target = self;
    EXPECT_EQ(target.View(), text);
    ExpectInvariants(target);
  }
}

TEST(String, SwapKeepsInlineTextInItsOwnObject) {
  CountingAllocator one;
  for (const std::string& right : {std::string("inline too"), longText}) {
    string a("inline");
    string b(std::string_view(right), &one);
    a.swap(b);
    EXPECT_EQ(a.View(), right);
    EXPECT_EQ(b.View(), "inline");
    EXPECT_EQ(a.allocator.Service(), &one);
    EXPECT_EQ(b.allocator.Service(), nullptr);
    ExpectInvariants(a);
    ExpectInvariants(b);
    b.swap(a);
    EXPECT_EQ(b.View(), right);
    ExpectInvariants(a);
    ExpectInvariants(b);
  }
}

TEST(String, OrderComparesSignedBytes) {
  struct Case {
    std::string_view smaller, larger;
  };
  using namespace std::string_view_literals;
  for (const Case& c : {Case{"\x80"sv, "\x7f"sv}, Case{"\xff"sv, "\0"sv}, Case{"ab"sv, "abc"sv},
                        Case{""sv, "\xff"sv}, Case{"ab\xff"sv, "aba"sv}, Case{"a\0"sv, "a\0\0"sv}}) {
    EXPECT_TRUE(string(c.smaller) < string(c.larger)) << c.smaller;
    EXPECT_FALSE(string(c.larger) < string(c.smaller)) << c.smaller;
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
  expect(reserve, [&] { text.reserve_extra(UINT64_MAX); });
  expect(reserve, [&] { wide.reserve_extra(wideLimit); });
  expect("zel::basic_string_t::resize_extra_at", [&] { text.resize_extra_at(3, narrowLimit); });
  expect("zel::basic_string_t constructor", [] { string(zel::types::WithCapacity{UINT64_MAX}); });
  // One below the limit it is only memory that is missing.
  EXPECT_THROW(text.reserve_extra(narrowLimit - 1), std::bad_alloc);
  EXPECT_THROW(wide.reserve_extra(wideLimit - 1), std::bad_alloc);
  EXPECT_EQ(text.View(), "abc");
  EXPECT_EQ(wide.View(), u"abc");
  ExpectInvariants(text);
}

TEST(String, ConstructsFromNothingAndWithRoom) {
  EXPECT_TRUE(string(static_cast<const char*>(nullptr)).empty());
  const string room{zel::types::WithCapacity{16}};
  EXPECT_EQ(room.capacity, 16u);
  ExpectInvariants(room);
  ExpectInvariants(string(zel::types::WithCapacity{15}));
  const string nul(std::string_view("a\0b", 3));
  EXPECT_EQ(string(nul).View(), std::string_view("a\0b", 3));
}

TEST(String, AllocationFailureLeavesTheStringAsItWas) {
  CountingAllocator one;
  for (zel::IAllocator* service :
       {static_cast<zel::IAllocator*>(nullptr), static_cast<zel::IAllocator*>(&one)}) {
    SweepAllocationFailures([&] {
      string text(std::string_view(longText), service);
      const string other("another text that needs a block");
      string copy(text);
      const auto unchanged = [&](auto&& operation) {
        try {
          operation();
        } catch (...) {
          EXPECT_EQ(copy.View(), longText);
          ExpectInvariants(copy);
          throw;
        }
        copy.assign(longText.data(), longText.size());
      };
      unchanged([&] { copy.append(other.View()); });
      unchanged([&] { copy.insert(copy.data + 1, 30); });
      unchanged([&] { copy.resize_extra_at(0, 500); });
      unchanged([&] { copy.append(copy.data, copy.size); });
      copy = text;
      string target("short");
      target = text;
      return true;
    });
  }
}

}  // namespace
}  // namespace veld_report::test
