// RecordWindow: the latest records that a page can show, with the packets they came in.
//
// Its memory is limited: 10,000 records and 16 MiB of their text, the oldest go first. Each has about 100
// bytes of its own besides, and each packet up to 2 KiB.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace veld_report::server {

// A stored message.
struct ShownPacket {
  std::uint64_t number = 0;  // counted from 1
  std::chrono::system_clock::time_point time{};
  std::string host{}, path{}, peer{};
  std::string keyName{};
  std::string signatureHeader{};  // its first bytes
  bool signatureIsEmpty = true, signatureChecked = false;
  std::size_t records = 0, stored = 0, repeated = 0;
  std::size_t bodyBytes = 0;
  std::chrono::nanoseconds sinkTime{};
};

struct ShownRecord {
  std::uint64_t number = 0;  // counted from 1
  std::shared_ptr<const ShownPacket> packet{};
  std::size_t place = 0;       // in the packet, from 0
  std::string text{};          // JSON; of a record over the limit its beginning
  std::size_t wholeBytes = 0;  // length of the record
};

// Threads: one at a time.
class RecordWindow {
 public:
  static constexpr std::size_t maxRecords = 10'000;
  static constexpr std::size_t maxBytes = std::size_t{16} << 20;
  static constexpr std::size_t maxRecordBytes = std::size_t{256} << 10;

  // Numbers the record and cuts its text if it must.
  const ShownRecord& Add(const std::shared_ptr<const ShownPacket>& packet, std::size_t place,
                         std::string_view text);
  // Null if the record has gone or never was.
  const ShownRecord* Find(std::uint64_t number) const;
  // Oldest first.
  const std::deque<ShownRecord>& Records() const { return records_; }
  std::size_t Bytes() const { return bytes_; }

 private:
  std::deque<ShownRecord> records_;
  std::size_t bytes_ = 0;
  std::uint64_t added_ = 0;
};

}  // namespace veld_report::server
