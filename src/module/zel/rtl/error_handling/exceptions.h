// The exceptions that carry a failure inside the module.
//
// They are thrown by value and caught by reference. Unlike std::system_error they carry a ResultCode and the
// throw site, as constants of static lifetime, and their texts are wide strings. None crosses an interface:
// exception_conversion.h turns them into codes and trace lines.
//
// An exception doesn't change after its construction and is for one thread.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>

#include "types/basic_string.h"
#include "types/object.h"

namespace zel {

// The site of a throw: a source path of static lifetime and a line.
struct ThrowPlace {
  const char* file;
  std::int32_t line;
};

class Exception : public std::exception {
 public:
  Exception(ThrowPlace place, wstring text);
  // The copy of `nested` is its Clone.
  Exception(const Exception& other);
  Exception& operator=(const Exception&) = delete;
  ~Exception() override;

  // The narrow name of the class.
  const char* what() const noexcept override { return "Unknown exception"; }
  // What happened, without the class and the site.
  virtual wstring GetDescription() const { return message; }
  // Throws a copy of its final class.
  [[noreturn]] virtual void Rethrow() const = 0;
  // A copy on the general heap, owned by the caller.
  virtual Exception* Clone() const = 0;

  // "NAME - DESCRIPTION. At FILE(LINE) ", with the trailing blank, through the locale. Returns an empty text
  // if memory runs out; throws std::bad_cast for a name or path that the locale can't convert.
  wstring GetDisplayText() const;

  const char* file;
  std::int32_t line;
  wstring message;
  // The exception that this one is chained to; may be null.
  std::unique_ptr<Exception> nested;
};

// Gives a final class the two operations that depend on it. Adds no field.
template <class Final, class Base>
class ExceptionBase : public Base {
 public:
  using Base::Base;
  [[noreturn]] void Rethrow() const override { throw Final(static_cast<const Final&>(*this)); }
  Exception* Clone() const override { return new Final(static_cast<const Final&>(*this)); }
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  ResultCodeException(ThrowPlace place, ResultCode failure, wstring text);
  const char* what() const noexcept override { return "ResultCodeException"; }
  // "MESSAGE: 0xHHHHHHHH (TEXT)", without "MESSAGE: " if there is no message.
  wstring GetDescription() const override;

  ResultCode code;
};

// A call that had to succeed failed.
class SystemException final : public ExceptionBase<SystemException, ResultCodeException> {
 public:
  using ExceptionBase::ExceptionBase;
  const char* what() const noexcept override { return "SystemException"; }
};

// A structure's meta information isn't available.
class InvalidResultException final : public ExceptionBase<InvalidResultException, ResultCodeException> {
 public:
  using ExceptionBase::ExceptionBase;
  const char* what() const noexcept override { return "InvalidResultException"; }
};

// The service locator refused an interface that an object requires. `code` is the locator's result.
class GetInterfaceException final : public ExceptionBase<GetInterfaceException, ResultCodeException> {
 public:
  GetInterfaceException(InterfaceId interfaceId, ResultCode failure);
  const char* what() const noexcept override { return "GetInterfaceException"; }
  // Ends in ": iid = 0xHHHHHHHH".
  wstring GetDescription() const override;

  InterfaceId iid;
};

// Contract violations. Nothing in the module throws them, but the conversions know them.
namespace contract {

class RequireViolation final : public ExceptionBase<RequireViolation, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
};
class InvariantViolation final : public ExceptionBase<InvariantViolation, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
};
class EnsureViolation final : public ExceptionBase<EnsureViolation, Exception> {
 public:
  using ExceptionBase::ExceptionBase;
};

}  // namespace contract

// Throws a SystemException with a copy of the NUL-terminated text, or std::bad_alloc.
[[noreturn]] void ThrowSystemException(const char* file, std::int32_t line, ResultCode code,
                                       const char16_t* text);

}  // namespace zel
