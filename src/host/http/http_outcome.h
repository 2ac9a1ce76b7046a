// The outcome of a request.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "types/result_code.h"

namespace veld_report::host {

// Codes of the kit's client besides the common ones.
inline constexpr zel::ResultCode eMediaError = zel::MakeResultCode(0x80000059);
inline constexpr zel::ResultCode eInvalidSignature = zel::MakeResultCode(0x8000005a);

struct HttpOutcome {
  zel::ResultCode code = zel::sOk;  // 0: there was an answer
  std::uint16_t status = 0;         // of the answer
  std::string error{};              // for people; empty if there was an answer
  std::string answer{};             // the printable beginning of an answer other than 200
  // It failed before it used the network, so it says nothing about the server.
  bool local = false;
  std::optional<std::string> retryAfter{};  // the header's value
};

// Thrown while a request is set up: it can't be sent.
struct HttpTransferRefused {
  zel::ResultCode code;
  std::string error;
};

// A sentence without credentials that says how the request failed; empty after an answer of 200.
std::string FailureText(const HttpOutcome& outcome);

}  // namespace veld_report::host
