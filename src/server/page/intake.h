// Intake: hands stored messages from the server's threads to the page's, and never makes the former wait.
//
// It differs from a queue in that it takes a sample when more comes than it may hold: 1,000 records and 2 MiB
// of text between two calls of Take. A packet gives up to 100 of its records, and only its first once half
// of the room is taken, so that one busy sender doesn't hide the others. What is left out is counted.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/page/record_window.h"
#include "server/server_observer.h"

namespace veld_report::server {

struct TakenMessage {
  std::shared_ptr<const ShownPacket> packet{};
  std::string lines{};  // the first records of the packet, line ends included
};

// Threads: any.
class Intake {
 public:
  static constexpr std::size_t maxRecords = 1'000;
  static constexpr std::size_t maxBytes = std::size_t{2} << 20;
  static constexpr std::size_t maxRecordsOfPacket = 100;

  // Returns how many records were left out. Throws std::bad_alloc.
  std::size_t Offer(const ObservedRequest& request, const StoredMessage& message);
  std::vector<TakenMessage> Take();

 private:
  std::mutex mutex_;  // guards the members below; held while up to 100 records are copied
  std::vector<TakenMessage> waiting_;
  std::size_t records_ = 0, bytes_ = 0;
  std::uint64_t messages_ = 0;
};

}  // namespace veld_report::server
