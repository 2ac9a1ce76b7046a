// The kinds of field that the host's serialiser knows: the values of `typeId` and `flags` in a row of a field
// table (contract/descriptor.h), and the memory layout that they stand for.
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
//   mapFlag                                 a map of plain values               a kind below
//   mapFlag | recordFlag                    a map of records                    serId of the record
//
// All but plain values need a `vectorHelper`, through which the serialiser reaches the values. GetSize
// returns how many there are (always 1 for a nested record, 0 or 1 for an optional), GetElement the address
// of each, GetElementSize the size of one. GetElementDescriptor returns a record's descriptor, whose serId
// must be the row's `typeId`; it isn't called for plain values. The helper of a map is a FieldMapHelper,
// whose Visit is called in place of GetElement. veld_report/field_helpers.h has helpers for all of these.
//
// An empty optional has no member in the JSON text. A structure with exactly one field, whose name is empty,
// isn't written as an object but as that field's value alone, or null if it is an empty optional. So a vector
// of vectors is described as a vector of such structures, each of which is the inner vector.
#pragma once

#include <cstdint>

#include "contract/descriptor.h"

namespace veld_report::field_kinds {

inline constexpr std::uint32_t recordFlag = 0x00010000;
inline constexpr std::uint32_t vectorFlag = 0x00002000;
inline constexpr std::uint32_t optionalFlag = 0x00004000;
inline constexpr std::uint32_t mapFlag = 0x00008000;
static_assert((recordFlag | vectorFlag) == zel::SerFieldDescriptor::vectorOfRecords);

// Numbers. The size of a value (`size` of a plain field, otherwise GetElementSize) gives the width: 1, 2, 4
// or 8 bytes for both kinds of integer, 4 or 8 for a floating point number, 1 for a boolean, which is false
// if its byte is 0. A floating point number is written in the shortest form that reads back as the same
// value, and as null if it isn't finite. From 2^53 on it has an exponent, since readers take digits alone for
// an integer.
inline constexpr std::uint32_t boolean = 0x01;
inline constexpr std::uint32_t signedInteger = 0x02;
inline constexpr std::uint32_t unsignedInteger = 0x03;
inline constexpr std::uint32_t floatingPoint = 0x04;

// Text. Narrow text is UTF-8, wide text is UTF-16. Invalid sequences are written as U+FFFD.
inline constexpr std::uint32_t narrowString = zel::SerFieldDescriptor::narrowString;  // 0x21, zel::string
inline constexpr std::uint32_t wideString = 0x22;                                     // zel::wstring
inline constexpr std::uint32_t standardString = 0x23;                                 // std::string
inline constexpr std::uint32_t standardWideString = 0x24;                             // std::u16string
inline constexpr std::uint32_t stringView = 0x25;                                     // std::string_view

// Text that already is JSON, exactly one value. It is checked and then written unchanged, except that line
// breaks and tabs between its tokens are dropped.
inline constexpr std::uint32_t jsonText = 0x31;          // zel::string
inline constexpr std::uint32_t standardJsonText = 0x33;  // std::string

// Points in time: the time since 1970-01-01T00:00:00Z without leap seconds, as a signed number of 8 bytes, in
// the given unit. Written as text (RFC 3339, in UTC) with as many digits as the unit has; null if the year
// isn't 0 to 9999.
inline constexpr std::uint32_t timeNanoseconds = 0x41;
inline constexpr std::uint32_t timeMicroseconds = 0x42;
inline constexpr std::uint32_t timeMilliseconds = 0x43;
inline constexpr std::uint32_t timeSeconds = 0x44;
inline constexpr std::uint32_t timeDays = 0x45;

}  // namespace veld_report::field_kinds
