#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "gmock/gmock.h"
#include "host/services/service_locator.h"
#include "tests/support/locale_scope.h"
#include "tests/support/support_host.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/error_handling/result_code_texts.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zel::ResultCode;
using zel::wstring;

std::u16string Text(const wstring& text) { return std::u16string(text.View()); }

TEST(ResultCodeText, EveryCodeHasOneOfItsRange) {
  struct Case {
    std::uint32_t code;
    const char16_t* text;
  };
  const auto unknown = u"Unknown result code";
  const auto unknownPlatform = u"Unknown platform result code";
  for (const Case& c :
       {Case{0, u"No error"}, Case{1, u"False"}, Case{2, unknown}, Case{0x80000000, unknown},
        Case{0x8000004d, u"Found"}, Case{0x80000074, unknown},
        Case{0x80000076, u"Meta information not found"}, Case{0x80000221, u"Operation timeout"},
        Case{0x80000222, unknown}, Case{0x80010100, u"Unspecified platform error"},
        Case{0x8001010a, unknownPlatform}, Case{0x80010113, u"System image bad signature"},
        Case{0x80010114, unknownPlatform}, Case{0x00010100, unknownPlatform}, Case{0x80020000, unknown}}) {
    EXPECT_EQ(Text(zel::ResultCodeMessage(zel::MakeResultCode(c.code))), c.text) << std::hex << c.code;
  }
}

TEST(Exception, DisplaysClassDescriptionAndPlace) {
  const ResultCode code = zel::MakeResultCode(0x80010fff);
  EXPECT_EQ(Text(zel::ResultCodeException({"q", INT32_MIN}, code, wstring()).GetDisplayText()),
            u"ResultCodeException - 0x80010fff (Unknown platform result code). At q(-2147483648) ");
  EXPECT_EQ(Text(zel::GetInterfaceException(0xabcd, zel::eInterfaceNotSupported).GetDisplayText()),
            u"GetInterfaceException - 0x80000001 (Interface not supported): iid = 0x0000abcd. "
            u"At zel\\rtl\\error_handling\\../objclient(129) ");
}

struct NullWhat : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

// What one exception becomes at a boundary. `none`: it leaves no line.
struct Conversion {
  const char* name;
  std::function<void()> raise;
  ResultCode reported;
  std::string reportedLine;
  ResultCode converted;
  std::optional<std::string> convertedLine;
};

std::vector<Conversion> Conversions() {
  const zel::ThrowPlace place{"p", 7};
  const auto system = [=](ResultCode code) {
    return [=] { throw zel::SystemException(place, code, wstring(u"A")); };
  };
  const std::string invalid = "SystemException - A: 0x80000046 (Invalid argument). At p(7) ";
  const std::string zero = "SystemException - A: 0x00000000 (No error). At p(7) ";
  const std::string plain = "Unknown exception - broken. At p(7) ";
  return {
      {"require", [=] { throw zel::contract::RequireViolation(place, wstring(u"broken")); },
       zel::eUnspecifiedError, "zel::Exception " + plain, zel::MakeResultCode(0x80000073), plain},
      {"invariant", [=] { throw zel::contract::InvariantViolation(place, wstring(u"broken")); },
       zel::eUnspecifiedError, "zel::Exception " + plain, zel::MakeResultCode(0x80000074), plain},
      {"ensure", [=] { throw zel::contract::EnsureViolation(place, wstring(u"broken")); },
       zel::eUnspecifiedError, "zel::Exception " + plain, zel::MakeResultCode(0x80000075), plain},
      {"code", system(zel::eInvalidArgument), zel::eInvalidArgument, invalid, zel::eInvalidArgument, invalid},
      {"code 0", system(0), 0, zero, zel::eUnexpected, zero},
      {"bad_alloc", [] { throw std::bad_alloc(); }, zel::eOutOfMemory, "std::bad_alloc std::bad_alloc",
       zel::eOutOfMemory, "std::bad_alloc"},
      {"length_error", [] { throw std::length_error("long"); }, zel::eUnspecifiedError, "std::exception long",
       zel::eOutOfMemory, "long"},
      {"exception", [] { throw std::runtime_error("text"); }, zel::eUnspecifiedError, "std::exception text",
       zel::eUnknownException, "text"},
      {"null text", [] { throw NullWhat(); }, zel::eUnspecifiedError, "std::exception (null)",
       zel::eUnknownException, "(null)"},
      {"no class", [] { throw 5; }, zel::eUnspecifiedError, "Unknown exception", zel::eUnknownException, {}},
      {"another zel::Exception",
       [=] {
         struct Plain final : zel::ExceptionBase<Plain, zel::Exception> {
           using ExceptionBase::ExceptionBase;
         };
         throw Plain(place, wstring(u"broken"));
       },
       zel::eUnspecifiedError, "zel::Exception " + plain, zel::eUnknownException, plain},
  };
}

template <class Convert>
ResultCode Converted(const std::function<void()>& raise, Convert&& convert) {
  try {
    raise();
  } catch (...) {
    return convert();
  }
  ADD_FAILURE() << "nothing was thrown";
  return zel::sOk;
}

TEST(ExceptionConversion, FollowsItsTwoTables) {
  for (const Conversion& c : Conversions()) {
    SCOPED_TRACE(c.name);
    const auto tracer = MakeObject<TestTracer>();
    const auto locator = MakeObject<host::ServiceLocator>();
    locator->Register<zel::ITracer>(tracer);
    const std::string head = "300 veld_rep\t\tf() ";
    const auto report = [&](auto* from) {
      return Converted(c.raise, [&] { return zel::ReportCaughtException(from, "f"); });
    };
    EXPECT_EQ(report(tracer.Get()), c.reported);
    EXPECT_EQ(report(locator.Get()), c.reported);
    EXPECT_THAT(tracer->TakeLines(), ElementsAre(head + c.reportedLine, head + c.reportedLine));
    EXPECT_EQ(report(MakeObject<host::ServiceLocator>().Get()), c.reported) << "a locator without a tracer";

    const auto convert = [&](auto&& conversion) { return Converted(c.raise, conversion); };
    EXPECT_EQ(convert([&] { return zel::ExceptionToResultCode(); }), c.converted);
    EXPECT_EQ(convert([&] {
                return zel::TraceExceptionToResultCode({tracer.Get(), nullptr, 700});
              }),
              c.converted);
    EXPECT_EQ(convert([&] { return zel::ConstructionExceptionToResultCode(locator.Get()); }), c.converted);
    if (c.convertedLine) {
      EXPECT_THAT(tracer->TakeLines(),
                  ElementsAre("700 " + *c.convertedLine,
                              "300 Exception during object construction: " + *c.convertedLine));
    } else {
      EXPECT_THAT(tracer->TakeLines(), IsEmpty());
    }
  }
}

TEST(ExceptionConversion, DisplayTextThatTheLocaleLacksIsReplaced) {
  const auto tracer = MakeObject<TestTracer>();
  const auto raise = [] {
    zel::SystemException exception({"p", 1}, zel::eNotFound, wstring(u"caf\u00e9"));
    exception.nested.reset(zel::SystemException({"q", 2}, zel::eNotReady, wstring(u"inner")).Clone());
    throw exception;
  };
  const auto line = [&](const char* name) {
    const LocaleScope locale(name);
    Converted(raise, [&] { return zel::TraceExceptionToResultCode({tracer.Get(), nullptr, 300}); });
    return tracer->TakeLines().at(0);
  };
  const std::string inner = ";SystemException - inner: 0x80000063 (Not ready). At q(2) ";
  EXPECT_EQ(line("C"), "300 <Exception display text conversion error>" + inner);
  EXPECT_EQ(line("C.utf8"), "300 SystemException - caf\xc3\xa9: 0x8000004c (Not found). At p(1) " + inner);
}

TEST(ExceptionConversion, FailureOfTheDisplayTextCommitsTheLineAndLeaves) {
  const auto tracer = MakeObject<TestTracer>();
  const LocaleScope locale("C");
  const auto raise = [] { throw zel::SystemException({"\xff", 1}, zel::eNotFound, wstring()); };
  EXPECT_THROW(Converted(raise, [&] { return zel::ReportCaughtException(tracer.Get(), "f"); }),
               std::bad_cast);
  EXPECT_THAT(tracer->TakeLines(), ElementsAre("300 veld_rep\t\tf() "));
}

}  // namespace
}  // namespace veld_report::tests
