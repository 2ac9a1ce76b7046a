// How much room a string makes, and lengths that no memory has.

#include <functional>
#include <stdexcept>
#include <string>

#include "gtest/gtest.h"
#include "types/basic_string.h"
#include "types/format.h"
#include "types/vector.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A size that no heap has must give null here too.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace veld_report::tests {
namespace {

using zel::string;
using zel::wstring;

TEST(StringRoomTest, AWantedCapacityUpTo15StaysInline) {
  for (const std::uint64_t wanted : {0u, 7u, 8u, 15u}) {
    const string narrow(zel::types::WithCapacity{wanted});
    const wstring wide(zel::types::WithCapacity{wanted});
    EXPECT_TRUE(narrow.IsInline() && narrow.capacity == 15) << wanted;
    EXPECT_TRUE(wide.IsInline() && wide.capacity == 7) << wanted;
  }
  EXPECT_EQ(string(zel::types::WithCapacity{16}).capacity, 16u);
  EXPECT_EQ(wstring(zel::types::WithCapacity{16}).capacity, 16u);
}

// Volatile, so that the compiler doesn't foresee what can't be allocated.
volatile std::uint64_t narrowLimit = 0xfffffffffffffffe, wideLimit = 0x7fffffffffffffff, all = UINT64_MAX;

struct Refusal {
  std::function<void(string&, wstring&)> run;
  const char* text;
};

constexpr char reserve[] = "zel::basic_string_t::reserve_extra()";
constexpr char resize[] = "zel::basic_string_t::resize_extra_at";
constexpr char construct[] = "zel::basic_string_t constructor";

const Refusal refusals[] = {
    {[](string& text, wstring&) { text.reserve_extra(narrowLimit - 3); }, reserve},
    {[](string&, wstring& wide) { wide.reserve_extra(wideLimit - 3); }, reserve},
    {[](string& text, wstring&) { text.resize_extra_at(3, narrowLimit - 3); }, resize},
    {[](string& text, wstring&) { text.append("x", all); }, reserve},
    {[](string&, wstring& wide) { zel::AppendFill(&wide, wideLimit, u'.'); }, reserve},
    {[](string& text, wstring&) { text.insert(text.data + text.size + 1, all); }, resize},
    {[](string& text, wstring&) { text.insert(text.data + 1, all); }, construct},
    {[](string& text, wstring&) { text.insert(text.data - 1, all); }, construct},
    {[](string& text, wstring&) { text.insert(text.data, narrowLimit); }, reserve},
    {[](string&, wstring&) { string made(zel::types::WithCapacity{narrowLimit}); }, construct},
    {[](string&, wstring&) { zel::vector_t<int>().append(all); }, "vector::append"},
};

TEST(StringRoomTest, ALengthThatNoMemoryHasIsRefused) {
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(&refusal - refusals);
    string text("abc");
    wstring wide(u"abc");
    try {
      refusal.run(text, wide);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::length_error& error) {
      EXPECT_STREQ(error.what(), refusal.text);
    }
    EXPECT_EQ(text.View(), "abc");
    EXPECT_EQ(wide.View(), u"abc");
  }
  // One below the limit it is only memory that is missing.
  string text("abc");
  wstring wide(u"abc");
  EXPECT_THROW(text.reserve_extra(narrowLimit - 4), std::bad_alloc);
  EXPECT_THROW(wide.reserve_extra(wideLimit - 4), std::bad_alloc);
}

}  // namespace
}  // namespace veld_report::tests
