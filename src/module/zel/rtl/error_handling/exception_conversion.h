// Turns a caught exception into a trace line and a ResultCode, at the boundary of an interface.
//
// All of these may only be called inside a catch-all handler, with an exception in flight. There are two
// tables: ReportCaughtException is for the sender's operations, the other three are for factories and
// framework code.
#pragma once

#include <cstdint>

#include "contract/service_locator.h"
#include "contract/tracer.h"

namespace zel {

class Exception;
class TraceStream;

// Writes the display texts of the exception and of those chained to it into the line, separated by ";",
// through the locale.
TraceStream& PutException(TraceStream& line, const Exception& exception);

// Writes a level 300 line with the module's tag and the function name, and returns the code: a
// ResultCodeException's own, even 0; 0x80000041 for std::bad_alloc; 0x8000004b for everything else, including
// std::length_error. `tracer` may be null.
ResultCode ReportCaughtException(ITracer* tracer, const char* functionName);
// The same with the locator's tracer, if it has one. `locator` isn't null. Throws nothing: if anything fails
// on the way, only the line is lost.
ResultCode ReportCaughtException(IServiceLocator* locator, const char* functionName);

// What an exception line starts with, and its level.
struct ExceptionTraceContext {
  ITracer* tracer = nullptr;     // may be null
  const char* prefix = nullptr;  // null counts as an empty text
  std::uint32_t level = 0;
};

// Returns the code: 0x80000073 to 0x80000075 for contract violations; a ResultCodeException's own, but
// 0x80000040 for 0; 0x80000041 for std::bad_alloc and std::length_error; 0x80000072 for everything else.
ResultCode ExceptionToResultCode();
// The same, with one line: the prefix and the exception. There is no line for an exception of an unknown
// class.
ResultCode TraceExceptionToResultCode(const ExceptionTraceContext& context);
// The same, with the prefix "Exception during object construction: ", level 300 and the locator's tracer, if
// there is a locator and it has one.
ResultCode ConstructionExceptionToResultCode(IServiceLocator* locator);

}  // namespace zel
