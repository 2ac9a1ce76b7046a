#include "zel/rtl/error_handling/exception_conversion.h"

#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>

#include "trace/trace_stream.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exceptions.h"

namespace zel {
namespace {

std::string_view WhatText(const std::exception& exception) {
  const char* text = exception.what();
  return text ? text : "(null)";
}

// Writes one line of that level with the pieces of `write`, without a tag.
template <class Write>
void ExceptionLine(ITracer* tracer, std::uint32_t level, Write&& write) {
  TraceRecord record;
  OpenTraceRecord(&record, tracer, level);
  if (!record.buffer) return;
  TraceStream stream(std::move(record));
  write(stream);
  stream.Commit();
}

// The framework's table. `line` receives a function that writes the piece after the prefix.
template <class Line>
ResultCode ConvertInFlight(Line&& line) {
  const auto put = [](const Exception& exception) {
    return [&exception](TraceStream& stream) { PutException(stream, exception); };
  };
  const auto putWhat = [](const std::exception& exception) {
    return [&exception](TraceStream& stream) { stream.PutText(WhatText(exception)); };
  };
  try {
    throw;
  } catch (const contract::RequireViolation& exception) {
    line(put(exception));
    return eRequireViolation;
  } catch (const contract::InvariantViolation& exception) {
    line(put(exception));
    return eInvariantViolation;
  } catch (const contract::EnsureViolation& exception) {
    line(put(exception));
    return eEnsureViolation;
  } catch (const ResultCodeException& exception) {
    line(put(exception));
    return exception.code == sOk ? eUnexpected : exception.code;
  } catch (const Exception& exception) {
    line(put(exception));
    return eUnknownException;
  } catch (const std::bad_alloc& exception) {
    line(putWhat(exception));
    return eOutOfMemory;
  } catch (const std::length_error& exception) {
    line(putWhat(exception));
    return eOutOfMemory;
  } catch (const std::exception& exception) {
    line(putWhat(exception));
    return eUnknownException;
  } catch (...) {
    // An exception of an unknown class has no text.
    return eUnknownException;
  }
}

}  // namespace

TraceStream& PutException(TraceStream& line, const Exception& exception) {
  for (const Exception* link = &exception; link; link = link->nested.get()) {
    const wstring display = link->GetDisplayText();
    string narrow;
    if (Failed(WideToNarrow(display.View(), &narrow))) {
      line.PutText(std::string_view("<Exception display text conversion error>"));
    } else {
      line.PutText(narrow);
    }
    if (link->nested) line.PutText(std::string_view(";"));
  }
  return line;
}

ResultCode ReportCaughtException(ITracer* tracer, const char* functionName) {
  const auto line = [&](auto&& write) {
    ExceptionLine(tracer, failureLevel, [&](TraceStream& stream) {
      stream.PutLocation({moduleTag, functionName});
      write(stream);
    });
  };
  try {
    throw;
  } catch (const ResultCodeException& exception) {
    line([&](TraceStream& stream) { PutException(stream, exception); });
    return exception.code;
  } catch (const Exception& exception) {
    line([&](TraceStream& stream) { PutException(stream.PutText("zel::Exception "), exception); });
    return eUnspecifiedError;
  } catch (const std::bad_alloc& exception) {
    line([&](TraceStream& stream) { stream.PutText("std::bad_alloc ").PutText(WhatText(exception)); });
    return eOutOfMemory;
  } catch (const std::exception& exception) {
    line([&](TraceStream& stream) { stream.PutText("std::exception ").PutText(WhatText(exception)); });
    return eUnspecifiedError;
  } catch (...) {
    line([&](TraceStream& stream) { stream.PutText("Unknown exception"); });
    return eUnspecifiedError;
  }
}

ResultCode ReportCaughtException(IServiceLocator* locator, const char* functionName) {
  try {
    Ref<ITracer> tracer;
    // If the locator has no tracer, only the line is lost.
    static_cast<void>(GetInterface(locator, tracer));
    return ReportCaughtException(tracer.Get(), functionName);
  } catch (...) {
    // The same if the host throws here: the exception being reported matters more.
  }
  return ReportCaughtException(static_cast<ITracer*>(nullptr), functionName);
}

ResultCode ExceptionToResultCode() {
  return ConvertInFlight([](auto&&) {});
}

ResultCode TraceExceptionToResultCode(const ExceptionTraceContext& context) {
  return ConvertInFlight([&](auto&& write) {
    ExceptionLine(context.tracer, context.level, [&](TraceStream& stream) {
      stream.PutText(std::string_view(context.prefix ? context.prefix : ""));
      write(stream);
    });
  });
}

ResultCode ConstructionExceptionToResultCode(IServiceLocator* locator) {
  try {
    Ref<ITracer> tracer;
    if (locator && !Failed(GetInterface(locator, tracer))) {
      return TraceExceptionToResultCode(
          {tracer.Get(), "Exception during object construction: ", failureLevel});
    }
  } catch (...) {
    // If the host throws here, only the line is lost: no failure of a factory leaves it as an exception.
  }
  return ExceptionToResultCode();
}

}  // namespace zel
