#include "server/page/record_window.h"

namespace veld_report::server {
namespace {

// Up to `limit` bytes, without a torn character at the end.
std::string_view Beginning(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80) --limit;
  return text.substr(0, limit);
}

}  // namespace

const ShownRecord& RecordWindow::Add(const std::shared_ptr<const ShownPacket>& packet, std::size_t place,
                                     std::string_view text) {
  records_.push_back({++added_, packet, place, std::string(Beginning(text, maxRecordBytes)), text.size()});
  bytes_ += records_.back().text.size();
  while (records_.size() > maxRecords || bytes_ > maxBytes) {
    bytes_ -= records_.front().text.size();
    records_.pop_front();
  }
  return records_.back();
}

const ShownRecord* RecordWindow::Find(std::uint64_t number) const {
  if (records_.empty() || number < records_.front().number) return nullptr;
  const std::uint64_t index = number - records_.front().number;
  return index < records_.size() ? &records_[index] : nullptr;
}

}  // namespace veld_report::server
