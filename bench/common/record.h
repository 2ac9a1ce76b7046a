// The record that the benchmarks send: five fields of the usual kinds, 135 bytes as JSON unless stretched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "veld_report/record.h"

namespace veld_report::bench {

struct Opened {
  std::string event = "document_opened";
  std::string document = "/home/user/reports/quarterly-2026-03-final.docx";
  std::int64_t number = 1234567;
  double durationMs = 183.25;
  bool ok = true;
};
VELD_RECORD(Opened, 0xbe0c4001, event, document, number, durationMs, ok)

// The length in JSON, as long as the number has seven digits.
inline constexpr std::size_t openedBytes = 135;

// A record of `bytes` in JSON (at least 100), as long as its number has as many digits as `number`.
inline Opened OpenedOfSize(std::size_t bytes, std::int64_t number) {
  Opened record;
  record.number = number;
  const std::size_t others = openedBytes - 7 + std::to_string(number).size() - record.document.size();
  record.document.resize(bytes > others ? bytes - others : 0, 'x');
  return record;
}

inline zel::AnyPtr AnyOf(Opened& record) { return zel::AnyPtr(&record, VeldRecordDescriptor(&record)); }

}  // namespace veld_report::bench
