#include "types/text_conversion.h"

#include <optional>
#include <string>
#include <typeinfo>

#include "gtest/gtest.h"
#include "tests/support/locale_scope.h"

namespace veld_report::tests {
namespace {

using namespace std::string_view_literals;
using zel::string;
using zel::wstring;

constexpr char16_t loneHigh[] = {0xd800, 0};
constexpr std::u16string_view highAtEnd(u"\U0001f600", 1);  // the low one stands behind the range
constexpr char16_t lowThenHigh[] = {0xde00, 0xd83d, 0};
constexpr char16_t highThenLetter[] = {0xd83d, u'x', 0};

TEST(WideToUtf8, EncodesEveryUtf16) {
  struct Case {
    std::u16string_view wide;
    std::string_view utf8;
  };
  for (const Case& c :
       {Case{u""sv, ""sv}, Case{u"a\0b"sv, "a\0b"sv}, Case{u"\u007f\u0080\u07ff"sv, "\x7f\xc2\x80\xdf\xbf"sv},
        Case{u"\u0800\uffff"sv, "\xe0\xa0\x80\xef\xbf\xbf"sv}, Case{u"\U0001f600"sv, "\xf0\x9f\x98\x80"sv},
        Case{u"\U00010000\U0010ffff"sv, "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"sv},
        Case{loneHigh, "\xed\xa0\x80"sv}, Case{highAtEnd, "\xed\xa0\xbd"sv},
        Case{lowThenHigh, "\xed\xb8\x80\xed\xa0\xbd"sv}, Case{highThenLetter, "\xed\xa0\xbdx"sv}}) {
    string text("a longer text that is replaced and shrinks");
    EXPECT_EQ(zel::WideToUtf8(c.wide, &text), zel::sOk);
    EXPECT_EQ(text.View(), c.utf8);
    EXPECT_EQ(zel::Utf8Length(c.wide), c.utf8.size());
  }
}

TEST(LocaleConversion, GoesThroughTheLocaleOfTheMoment) {
  struct Case {
    const char* locale;
    std::u16string_view wide;
    std::optional<std::string_view> narrow;  // none: the locale lacks a character
  };
  for (const Case& c :
       {Case{"C", u""sv, ""sv}, Case{"C", u"plain\0text"sv, "plain\0text"sv}, Case{"C", u"caf\u00e9"sv, {}},
        Case{"C.utf8", u"caf\u00e9 \u20ac\0"sv, "caf\xc3\xa9 \xe2\x82\xac\0"sv},
        Case{"C.utf8", u"\U0001f600!"sv, "\xf0\x9f\x98\x80!"sv}, Case{"C.utf8", loneHigh, {}}}) {
    const LocaleScope locale(c.locale);
    string text("old");
    const zel::ResultCode code = zel::WideToNarrow(c.wide, &text);
    if (c.narrow) {
      EXPECT_EQ(code, zel::sOk);
      EXPECT_EQ(text.View(), *c.narrow);
      EXPECT_EQ(zel::NarrowToWide(string(*c.narrow)).View(), c.wide) << "and back";
    } else {
      EXPECT_EQ(code, zel::eInvalidArgument);
      EXPECT_EQ(text.View(), "old");
    }
  }
}

TEST(LocaleConversion, BrokenSequencesThrow) {
  struct Case {
    const char* locale;
    const char* text;
  };
  for (const Case& c : {Case{"C", "caf\xe9"}, Case{"C.utf8", "\xff"}, Case{"C.utf8", "cut \xe2\x82"},
                        Case{"C.utf8", "a\x80"}, Case{"C.utf8", "\xed\xa0\x80"}}) {
    const LocaleScope locale(c.locale);
    EXPECT_THROW(zel::NarrowToWide(c.text), std::bad_cast) << c.locale << " " << c.text;
  }
  EXPECT_TRUE(zel::NarrowToWide(static_cast<const char*>(nullptr)).empty());
}

}  // namespace
}  // namespace veld_report::tests
