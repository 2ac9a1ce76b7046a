#include "zel/rtl/error_handling/result_code_texts.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace zel {
namespace {

struct Row {
  std::uint32_t code;
  const char16_t* text;
};

// Both tables are in ascending order of the code as an unsigned number.
constexpr Row generalTable[] = {
    {0x00000000, u"No error"},
    {0x00000001, u"False"},
    {0x80000001, u"Interface not supported"},
    {0x80000040, u"Unexpected"},
    {0x80000041, u"Out of memory"},
    {0x80000042, u"Not supported"},
    {0x80000043, u"Not implemented"},
    {0x80000044, u"Buffer too small"},
    {0x80000045, u"Access denied"},
    {0x80000046, u"Invalid argument"},
    {0x8000004a, u"Not matched"},
    {0x8000004b, u"Unspecified error"},
    {0x8000004c, u"Not found"},
    {0x8000004d, u"Found"},
    {0x8000004f, u"Locked"},
    {0x80000050, u"Not locked"},
    {0x80000051, u"Operation cancelled"},
    {0x80000057, u"Method not found"},
    {0x80000058, u"Stack is empty"},
    {0x80000059, u"Media error"},
    {0x8000005a, u"Invalid signature"},
    {0x8000005b, u"Invalid version"},
    {0x8000005c, u"Invalid size"},
    {0x8000005d, u"Invalid type"},
    {0x8000005e, u"Invalid index"},
    {0x80000062, u"Out of space"},
    {0x80000063, u"Not ready"},
    {0x80000064, u"Less than"},
    {0x80000065, u"More than"},
    {0x80000066, u"Prohibited"},
    {0x80000067, u"Already done"},
    {0x80000068, u"Need reboot"},
    {0x80000069, u"Bases corrupted"},
    {0x8000006a, u"Invalid state"},
    {0x8000006b, u"Not initialized"},
    {0x8000006c, u"Insufficient resources"},
    {0x80000071, u"Invalid result"},
    {0x80000072, u"Unknown exception"},
    {0x80000076, u"Meta information not found"},
    {0x80000100, u"Class not found"},
    {0x80000180, u"Property not found"},
    {0x80000221, u"Operation timeout"},
};

constexpr Row platformTable[] = {
    {0x80010100, u"Unspecified platform error"},
    {0x80010101, u"Invalid handle"},
    {0x80010102, u"File not found"},
    {0x80010103, u"Path not found"},
    {0x80010104, u"Sharing violation"},
    {0x80010105, u"Already exists"},
    {0x80010106, u"Wait abandoned"},
    {0x80010107, u"Symbol not found"},
    {0x80010108, u"Sxs is incorrect"},
    {0x80010109, u"Invalid path name"},
    {0x80010110, u"Cannot open an anonymous level security token"},
    {0x80010111, u"Password is invalid"},
    {0x80010112, u"Module not found"},
    {0x80010113, u"System image bad signature"},
};

constexpr bool CodeLess(const Row& left, const Row& right) { return left.code < right.code; }
static_assert(std::is_sorted(std::begin(generalTable), std::end(generalTable), CodeLess));
static_assert(std::is_sorted(std::begin(platformTable), std::end(platformTable), CodeLess));

template <std::size_t N>
const char16_t* Find(const Row (&table)[N], ResultCode code, const char16_t* missing) {
  const Row wanted{static_cast<std::uint32_t>(code), nullptr};
  const Row* row = std::lower_bound(std::begin(table), std::end(table), wanted, CodeLess);
  return row != std::end(table) && row->code == wanted.code ? row->text : missing;
}

bool IsPlatformCode(ResultCode code) { return (static_cast<std::uint32_t>(code) & 0x7fff0000u) == 0x10000u; }

}  // namespace

const char16_t* GeneralResultCodeText(ResultCode code) {
  return Find(generalTable, code, u"Unknown result code");
}

const char16_t* PlatformResultCodeText(ResultCode code) {
  return Find(platformTable, code, u"Unknown platform result code");
}

wstring ResultCodeMessage(ResultCode code) {
  return wstring(IsPlatformCode(code) ? PlatformResultCodeText(code) : GeneralResultCodeText(code));
}

}  // namespace zel
