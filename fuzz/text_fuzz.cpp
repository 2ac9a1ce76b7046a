// The text conversions, compared with the slow ones of plain_text.h, and the wire format's base64. The first
// byte of an input chooses the conversion; the rest is the text.
#include <clocale>
#include <cstdint>
#include <typeinfo>
#include <vector>

#include "formats/base64.h"
#include "fuzz/input.h"
#include "fuzz/plain_text.h"
#include "server/base64.h"
#include "tests/server/message_builder.h"
#include "types/text_conversion.h"

namespace {

using namespace veld_report::fuzz;
using veld_report::server_test::EncodeBase64;

// Previous content, shorter or longer than the result, that must be overwritten.
zel::string Used(Input& in) { return zel::string(std::string(in.Below(60), 'o')); }

void WideToUtf8(Input& in) {
  zel::string out = Used(in);
  const auto wide = in.Characters<char16_t>(SIZE_MAX);
  std::string expected;
  for (std::size_t at = 0; at < wide.size();) expected += Utf8(NextUtf16(wide, &at));
  Require(zel::WideToUtf8(wide, &out) == zel::sOk && out.View() == expected, "UTF-8 of wide text");
  Require(out.data[out.size] == '\0', "UTF-8 of wide text isn't ended");
  Require(zel::Utf8Length(wide) == expected.size(), "length of UTF-8");
}

void EncodeOne(Input& in) {
  const auto codePoint = static_cast<std::uint32_t>(in.Number(in.OneIn(2) ? 4 : 3));
  char bytes[4];
  const std::uint32_t count = zel::EncodeUtf8(codePoint, bytes);
  Require(std::string_view(bytes, count) == Utf8(codePoint), "UTF-8 of one code point");
}

// The locale decides what a character is; the "C" locale only knows ASCII.
void WideToNarrow(Input& in, bool utf8) {
  zel::string out = Used(in);
  const std::string before(out.View());
  const auto wide = in.Characters<char16_t>(SIZE_MAX);
  std::string expected;
  bool valid = true;
  for (std::size_t at = 0; at < wide.size();) {
    const std::uint32_t codePoint = NextUtf16(wide, &at);
    valid = valid && (utf8 ? !IsHalfPair(codePoint) : codePoint < 0x80);
    expected += Utf8(codePoint);
  }
  const zel::ResultCode code = zel::WideToNarrow(wide, &out);
  Require(code == (valid ? zel::sOk : zel::eInvalidArgument), "whether wide text becomes narrow");
  Require(out.View() == (valid ? expected : before), "narrow text of wide text");
}

void NarrowToWide(Input& in, bool utf8) {
  const zel::string narrow(in.Rest());
  // The C library accepts old forms of values above 0x10ffff, which aren't text.
  for (const char byte : narrow.View()) {
    if (static_cast<unsigned char>(byte) > 0xf3) return;
  }
  std::u16string expected;
  bool valid = true;
  for (std::size_t at = 0; at < narrow.size;) {
    const std::uint32_t codePoint = NextUtf8(narrow.View(), &at);
    valid = valid && codePoint != broken && (utf8 || codePoint < 0x80);
    if (codePoint > 0xffff && codePoint != broken) {
      expected.push_back(static_cast<char16_t>(0xd800 + (codePoint - 0x10000) / 0x400));
      expected.push_back(static_cast<char16_t>(0xdc00 + (codePoint - 0x10000) % 0x400));
    } else {
      expected.push_back(static_cast<char16_t>(codePoint));
    }
  }
  try {
    const zel::wstring wide = zel::NarrowToWide(narrow);
    Require(valid && wide.View() == expected, "wide text of narrow text");
    Require(wide.data[wide.size] == u'\0', "wide text isn't ended");
  } catch (const std::bad_cast&) {
    Require(!valid, "narrow text is refused");
  }
}

void ToBase64AndHex(Input& in) {
  zel::string out = Used(in);
  const std::string bytes(in.Rest());
  // An exact copy with nothing after it, so that reading past the end is noticed.
  const std::vector<std::uint8_t> block(bytes.begin(), bytes.end());
  const std::uint8_t* const first = block.data();
  orvel::veld_report::Base64Encode(first, bytes.size(), &out);
  Require(out.View() == EncodeBase64(bytes) && out.data[out.size] == '\0', "base-64");
  std::string back;
  Require(veld_report::server::DecodeBase64(out.View(), &back).empty() && back == bytes, "base-64 and back");

  std::string hex;
  for (const char byte : bytes) {
    hex.push_back("0123456789abcdef"[static_cast<unsigned char>(byte) / 16]);
    hex.push_back("0123456789abcdef"[static_cast<unsigned char>(byte) % 16]);
  }
  Require(zel::HexText(first, bytes.size()).View() == hex, "hexadecimal text");
}

// Only the one canonical text of some bytes may be accepted.
void FromBase64(Input& in) {
  const std::string_view text = in.Rest();
  std::string bytes;
  const std::string problem = veld_report::server::DecodeBase64(text, &bytes);
  Require(problem.empty() ? EncodeBase64(bytes) == text : bytes.empty(),
          "a text that isn't the bytes' base-64");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  const std::size_t choice = in.Below(8);
  const bool utf8 = choice % 2 == 0;
  // Which locales exist depends on the machine; "C.utf8" is part of the C library.
  if (choice < 4 && !std::setlocale(LC_CTYPE, utf8 ? "C.utf8" : "C")) return 0;
  if (choice < 2) WideToNarrow(in, utf8);
  if (choice == 2 || choice == 3) NarrowToWide(in, utf8);
  if (choice == 4) WideToUtf8(in);
  if (choice == 5) EncodeOne(in);
  if (choice == 6) ToBase64AndHex(in);
  if (choice == 7) FromBase64(in);
  return 0;
}
