#include "zel/rtl/error_handling/exceptions.h"

#include <new>
#include <string_view>
#include <utility>

#include "types/format.h"
#include "types/platform/locale_text.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/result_code_texts.h"

namespace zel {
namespace {

// The only site of GetInterfaceException, under the framework's name for it.
constexpr ThrowPlace getInterfacePlace{"zel\\rtl\\error_handling\\../objclient", 129};

void AppendHex8(wstring* out, std::uint32_t value) {
  FormatSpec format;
  format.width = 8;
  format.radix = 16;
  format.fill = u'0';
  AppendNumber(out, format, value);
}

wstring DecimalText(std::int32_t value) {
  char digits[16];
  platform::DecimalText(value, digits);
  return NarrowToWide(digits);
}

}  // namespace

Exception::Exception(ThrowPlace place, wstring text)
    : file(place.file), line(place.line), message(std::move(text)) {}

Exception::Exception(const Exception& other)
    : std::exception(other),
      file(other.file),
      line(other.line),
      message(other.message),
      nested(other.nested ? other.nested->Clone() : nullptr) {}

Exception::~Exception() = default;

wstring Exception::GetDisplayText() const {
  try {
    wstring text;
    text.append(NarrowToWide(what()).View());
    text.append(u" - ");
    text.append(GetDescription().View());
    text.append(u". At ");
    text.append(NarrowToWide(file).View());
    text.append(u"(");
    text.append(DecimalText(line).View());
    text.append(u") ");
    return text;
  } catch (const std::bad_alloc&) {
    return wstring();
  }
}

ResultCodeException::ResultCodeException(ThrowPlace place, ResultCode failure, wstring text)
    : ExceptionBase(place, std::move(text)), code(failure) {}

wstring ResultCodeException::GetDescription() const {
  wstring text(message);
  if (!text.empty()) text.append(u": ");
  text.append(u"0x");
  AppendHex8(&text, static_cast<std::uint32_t>(code));
  text.append(u" (");
  text.append(ResultCodeMessage(code).View());
  text.append(u")");
  return text;
}

GetInterfaceException::GetInterfaceException(InterfaceId interfaceId, ResultCode failure)
    : ExceptionBase(getInterfacePlace, failure, wstring()), iid(interfaceId) {}

wstring GetInterfaceException::GetDescription() const {
  wstring text = ResultCodeException::GetDescription();
  text.append(u": ");
  text.append(u"iid = 0x");
  AppendHex8(&text, iid);
  return text;
}

void ThrowSystemException(const char* file, std::int32_t line, ResultCode code, const char16_t* text) {
  throw SystemException({file, line}, code, wstring(text));
}

}  // namespace zel
