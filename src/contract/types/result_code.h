// ResultCode: the status that every operation across a binary boundary returns.
//
// Negative is failure, 0 is success, and positive is success with additional information. Inside the module a
// failure travels as an exception instead (zel/rtl/error_handling/exceptions.h). The texts of the codes are
// in zel/rtl/error_handling/result_code_texts.h; the names here follow those texts.
#pragma once

#include <cstdint>

#include "types/require_cpp20.h"

namespace zel {

using ResultCode = std::int32_t;

constexpr ResultCode MakeResultCode(std::uint32_t bits) { return static_cast<ResultCode>(bits); }

inline constexpr ResultCode sOk = 0;
inline constexpr ResultCode sFalse = 1;
inline constexpr ResultCode eInterfaceNotSupported = MakeResultCode(0x80000001);
inline constexpr ResultCode eUnexpected = MakeResultCode(0x80000040);
inline constexpr ResultCode eOutOfMemory = MakeResultCode(0x80000041);
inline constexpr ResultCode eNotSupported = MakeResultCode(0x80000042);
inline constexpr ResultCode eNotImplemented = MakeResultCode(0x80000043);
inline constexpr ResultCode eInvalidArgument = MakeResultCode(0x80000046);
inline constexpr ResultCode eUnspecifiedError = MakeResultCode(0x8000004b);
inline constexpr ResultCode eNotFound = MakeResultCode(0x8000004c);
inline constexpr ResultCode eOperationCancelled = MakeResultCode(0x80000051);
inline constexpr ResultCode eOutOfSpace = MakeResultCode(0x80000062);
inline constexpr ResultCode eNotReady = MakeResultCode(0x80000063);
inline constexpr ResultCode eInvalidState = MakeResultCode(0x8000006a);
inline constexpr ResultCode eNotInitialized = MakeResultCode(0x8000006b);
inline constexpr ResultCode eInvalidResult = MakeResultCode(0x80000071);
inline constexpr ResultCode eUnknownException = MakeResultCode(0x80000072);
inline constexpr ResultCode eRequireViolation = MakeResultCode(0x80000073);
inline constexpr ResultCode eInvariantViolation = MakeResultCode(0x80000074);
inline constexpr ResultCode eEnsureViolation = MakeResultCode(0x80000075);
inline constexpr ResultCode eOperationTimeout = MakeResultCode(0x80000221);

constexpr bool Failed(ResultCode code) { return code < 0; }

}  // namespace zel
