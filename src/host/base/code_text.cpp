#include "veld_report/code_text.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace veld_report {
namespace {

struct Row {
  zel::ResultCode code;
  std::string_view text;
};

constexpr Row rows[] = {
    {zel::sOk, "No error"},
    {zel::sFalse, "False"},
    {zel::eInterfaceNotSupported, "Interface not supported"},
    {zel::eUnexpected, "Unexpected"},
    {zel::eOutOfMemory, "Out of memory"},
    {zel::eNotSupported, "Not supported"},
    {zel::eNotImplemented, "Not implemented"},
    {zel::eInvalidArgument, "Invalid argument"},
    {zel::eUnspecifiedError, "Unspecified error"},
    {zel::eNotFound, "Not found"},
    {zel::eOperationCancelled, "Operation cancelled"},
    {zel::MakeResultCode(0x80000059), "Media error"},
    {zel::MakeResultCode(0x8000005a), "Invalid signature"},
    {zel::eOutOfSpace, "Out of space"},
    {zel::eNotReady, "Not ready"},
    {zel::eInvalidState, "Invalid state"},
    {zel::eNotInitialized, "Not initialized"},
    {zel::eInvalidResult, "Invalid result"},
    {zel::eUnknownException, "Unknown exception"},
    {zel::eOperationTimeout, "Operation timeout"},
};

}  // namespace

std::string CodeText(zel::ResultCode code) {
  std::array<char, 16> number{};
  std::snprintf(number.data(), number.size(), "0x%08x", static_cast<std::uint32_t>(code));
  std::string text(number.data());
  for (const Row& row : rows) {
    if (row.code == code) text.append(" ").append(row.text);
  }
  return text;
}

}  // namespace veld_report
