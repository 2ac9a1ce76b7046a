// How a request ended.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "types/result_code.h"

namespace veld_report::host {

// Codes that the kit's client gives besides the common ones.
inline constexpr zel::ResultCode eMediaError = zel::MakeResultCode(0x80000059);
inline constexpr zel::ResultCode eInvalidSignature = zel::MakeResultCode(0x8000005a);

struct HttpOutcome {
  zel::ResultCode code = zel::sOk;  // 0: an answer came
  std::uint16_t status = 0;         // of the answer
  std::string error{};              // for people; empty where an answer came
  // It failed before anything was asked of the network, so it says nothing about the server.
  bool local = false;
  std::optional<std::string> retryAfter{};  // the header's value
};

}  // namespace veld_report::host
