// Codes and exceptions: their texts, what an exception becomes at a boundary, and locales that lack a
// character.
#include <clocale>
#include <stdexcept>
#include <string>
#include <utility>

#include "gmock/gmock.h"
#include "host/services/line_tracer.h"
#include "host/services/service_locator.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"
#include "zel/rtl/error_handling/result_code_texts.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using zel::ResultCode;
using zel::wstring;

using Lines = std::vector<std::string>;

TEST(ResultCodeText, EveryCodeHasOneOfItsRange) {
  const auto unknown = u"Unknown result code", unknownPlatform = u"Unknown platform result code";
  using Case = std::pair<std::uint32_t, const char16_t*>;
  for (const auto& [code, text] :
       {Case{0, u"No error"}, Case{1, u"False"}, Case{2, unknown}, Case{0x80000000, unknown},
        Case{0x8000004d, u"Found"}, Case{0x80000074, unknown},
        Case{0x80000076, u"Meta information not found"}, Case{0x80000221, u"Operation timeout"},
        Case{0x80000222, unknown}, Case{0x80010100, u"Unspecified platform error"},
        Case{0x8001010a, unknownPlatform}, Case{0x80010113, u"System image bad signature"},
        Case{0x80010114, unknownPlatform}, Case{0x00010100, unknownPlatform}, Case{0x80020000, unknown}})
    EXPECT_EQ(zel::ResultCodeMessage(zel::MakeResultCode(code)).View(), text) << std::hex << code;
}

TEST(Exception, DisplaysClassDescriptionAndPlace) {
  const ResultCode code = zel::MakeResultCode(0x80010fff);
  EXPECT_EQ(zel::ResultCodeException({"q", INT32_MIN}, code, wstring()).GetDisplayText().View(),
            u"ResultCodeException - 0x80010fff (Unknown platform result code). At q(-2147483648) ");
  EXPECT_EQ(zel::GetInterfaceException(0xabcd, zel::eInterfaceNotSupported).GetDisplayText().View(),
            u"GetInterfaceException - 0x80000001 (Interface not supported): iid = 0x0000abcd. "
            u"At zel\\rtl\\error_handling\\../objclient(129) ");
}

// A host that keeps trace lines as "LEVEL text".
struct Boundary {
  Boundary() {
    const auto keep = [this](std::string_view line) { lines.emplace_back(line.substr(line.find(' ') + 1)); };
    tracer = host::MakeObject<host::LineTracer>(host::LineTracerOptions{.level = 700, .sink = keep});
    locator->Register<zel::ITracer>(tracer);
  }

  Lines lines;
  zel::Ref<zel::ITracer> tracer;
  const zel::Ref<host::ServiceLocator> locator = host::MakeObject<host::ServiceLocator>();
};

constexpr zel::ThrowPlace place{"p", 7};
template <class E>
void Throw() {
  throw E(place, wstring(u"broken"));
}
template <ResultCode code>
void ThrowCode() {
  throw zel::SystemException(place, code, wstring(u"A"));
}
struct NullWhat : std::exception {
  const char* what() const noexcept override { return nullptr; }
};
struct Plain final : zel::ExceptionBase<Plain, zel::Exception> {
  using ExceptionBase::ExceptionBase;
};

// What one exception becomes where it is reported, and where it is converted.
struct Conversion {
  void (*raise)();
  ResultCode reported, converted;
  std::string kind, text;  // of the line; only a report has the kind
};

const std::string broken = "Unknown exception - broken. At p(7) ";
const Conversion conversions[] = {
    {Throw<zel::contract::RequireViolation>, zel::eUnspecifiedError, zel::MakeResultCode(0x80000073),
     "zel::Exception ", broken},
    {Throw<zel::contract::InvariantViolation>, zel::eUnspecifiedError, zel::MakeResultCode(0x80000074),
     "zel::Exception ", broken},
    {Throw<zel::contract::EnsureViolation>, zel::eUnspecifiedError, zel::MakeResultCode(0x80000075),
     "zel::Exception ", broken},
    {Throw<Plain>, zel::eUnspecifiedError, zel::eUnknownException, "zel::Exception ", broken},
    {ThrowCode<zel::eInvalidArgument>, zel::eInvalidArgument, zel::eInvalidArgument, "",
     "SystemException - A: 0x80000046 (Invalid argument). At p(7) "},
    {ThrowCode<zel::sOk>, 0, zel::eUnexpected, "", "SystemException - A: 0x00000000 (No error). At p(7) "},
    {[] { throw std::bad_alloc(); }, zel::eOutOfMemory, zel::eOutOfMemory, "std::bad_alloc ",
     "std::bad_alloc"},
    {[] { throw std::length_error("long"); }, zel::eUnspecifiedError, zel::eOutOfMemory, "std::exception ",
     "long"},
    {[] { throw std::runtime_error("text"); }, zel::eUnspecifiedError, zel::eUnknownException,
     "std::exception ", "text"},
    {[] { throw NullWhat(); }, zel::eUnspecifiedError, zel::eUnknownException, "std::exception ", "(null)"},
    {[] { throw 5; }, zel::eUnspecifiedError, zel::eUnknownException, "Unknown exception", ""},
};

TEST(ExceptionConversion, FollowsItsTwoTables) {
  for (const Conversion& c : conversions) {
    SCOPED_TRACE(c.kind + c.text);
    Boundary at;
    try {
      c.raise();
    } catch (...) {
      EXPECT_EQ(zel::ReportCaughtException(at.tracer.Get(), "f"), c.reported);
      EXPECT_EQ(zel::ReportCaughtException(at.locator.Get(), "f"), c.reported);
      const std::string report = "300 veld_rep\t\tf() " + c.kind + c.text;
      EXPECT_THAT(std::exchange(at.lines, {}), ElementsAre(report, report));

      EXPECT_EQ(zel::ExceptionToResultCode(), c.converted);
      EXPECT_EQ(zel::TraceExceptionToResultCode({at.tracer.Get(), nullptr, 700}), c.converted);
      EXPECT_EQ(zel::ConstructionExceptionToResultCode(at.locator.Get()), c.converted);
      at.locator->Clear();
      EXPECT_EQ(zel::ReportCaughtException(at.locator.Get(), "f"), c.reported);
    }
    EXPECT_EQ(at.lines, c.text.empty() ? Lines{}
                                       : Lines({"700 " + c.text,
                                                "300 Exception during object construction: " + c.text}));
  }
}

TEST(ExceptionConversion, DisplayTextThatTheLocaleLacksIsReplaced) {
  Boundary at;
  try {
    zel::SystemException exception({"p", 1}, zel::eNotFound, wstring(u"caf\u00e9"));
    exception.nested.reset(zel::SystemException({"q", 2}, zel::eNotReady, wstring(u"inner")).Clone());
    throw exception;
  } catch (...) {
    for (const char* name : {"C.utf8", "C"}) {
      ASSERT_NE(std::setlocale(LC_ALL, name), nullptr) << "this machine lacks the locale " << name;
      zel::TraceExceptionToResultCode({at.tracer.Get(), nullptr, 300});
    }
  }
  const std::string inner = ";SystemException - inner: 0x80000063 (Not ready). At q(2) ";
  EXPECT_THAT(at.lines,
              ElementsAre("300 SystemException - caf\xc3\xa9: 0x8000004c (Not found). At p(1) " + inner,
                          "300 <Exception display text conversion error>" + inner));
  EXPECT_TRUE(zel::NarrowToWide(static_cast<const char*>(nullptr)).empty());
}

TEST(ExceptionConversion, FailureOfTheDisplayTextCommitsTheLineAndLeaves) {
  Boundary at;
  try {
    throw zel::SystemException({"\xff", 1}, zel::eNotFound, wstring());
  } catch (...) {
    EXPECT_THROW(zel::ReportCaughtException(at.tracer.Get(), "f"), std::bad_cast);
  }
  EXPECT_THAT(at.lines, ElementsAre("300 veld_rep\t\tf() "));
}

}  // namespace
}  // namespace veld_report::tests
