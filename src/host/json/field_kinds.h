// The kinds of field that the host's serialiser knows: what stands in `typeId` and `flags` of a row of a
// field table (contract/descriptor.h), and how the value lies in memory.
//
// `flags` says what the field holds, `typeId` what one value is:
//
//   flags                                   the field is                        typeId
//   0                                       one plain value                     a kind below
//   recordFlag                              one nested record                   serId of the record
//   vectorFlag                              a vector of plain values            a kind below
//   vectorFlag | recordFlag = 0x00012000    a vector of records                 serId of the record
//   optionalFlag                            at most one plain value             a kind below
//   optionalFlag | recordFlag               at most one record                  serId of the record
//
// All but a plain value need a `vectorHelper`, through which the serialiser reaches the values: GetSize gives
// their number (always 1 for a nested record, 0 or 1 for an optional), GetElement the address of each, and
// GetElementSize the size of one. GetElementDescriptor gives the descriptor of a record, whose serId must be
// the row's `typeId`; for plain values it isn't called. host/json/field_helpers.h has ready ones.
//
// An absent optional has no member in the JSON text. Vectors of vectors and of optionals have no form; put
// the inner one into a record.
#pragma once

#include <cstdint>

#include "contract/descriptor.h"

namespace veld_report::host::field_kinds {

inline constexpr std::uint32_t recordFlag = 0x00010000;
inline constexpr std::uint32_t vectorFlag = 0x00002000;
inline constexpr std::uint32_t optionalFlag = 0x00004000;
static_assert((recordFlag | vectorFlag) == zel::SerFieldDescriptor::vectorOfRecords);

// Numbers. The size of a value (`size` of a plain field, otherwise GetElementSize) tells the width: 1, 2, 4
// or 8 bytes for the two kinds of integer, 4 or 8 for a floating point number, 1 for a boolean, which is
// false exactly when its byte is 0. A floating point number is written in the shortest form that reads back
// as the same value (with an exponent from 2^53 on, since readers take digits alone for an integer), and as
// null if it is not finite.
inline constexpr std::uint32_t boolean = 0x01;
inline constexpr std::uint32_t signedInteger = 0x02;
inline constexpr std::uint32_t unsignedInteger = 0x03;
inline constexpr std::uint32_t floatingPoint = 0x04;

// Text. Narrow text is UTF-8 and wide text UTF-16; each sequence that isn't valid is written as U+FFFD.
inline constexpr std::uint32_t narrowString = zel::SerFieldDescriptor::narrowString;  // 0x21, zel::string
inline constexpr std::uint32_t wideString = 0x22;                                     // zel::wstring
inline constexpr std::uint32_t standardString = 0x23;                                 // std::string
inline constexpr std::uint32_t standardWideString = 0x24;                             // std::u16string
inline constexpr std::uint32_t stringView = 0x25;                                     // std::string_view

// Text that is JSON already, exactly one value: it is checked and then written as it stands, less the line
// breaks and tabs between its tokens. A structure whose table has exactly one row, of one of these kinds with
// flags 0 and an empty name, isn't an object: it is that text.
inline constexpr std::uint32_t jsonText = 0x31;          // zel::string
inline constexpr std::uint32_t standardJsonText = 0x33;  // std::string

}  // namespace veld_report::host::field_kinds
