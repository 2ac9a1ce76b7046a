// The records that the sender uses between a submission and a request.
#pragma once

#include <cstdint>

#include "types/basic_string.h"
#include "types/vector.h"

namespace orvel::veld_report {

// The domain of the sender's queues in the host's queue service. Built for each call that needs it.
inline zel::string QueueDomain() { return zel::string("veld_rep"); }

// One row of the working table: where the items of one queue go, and whose they are.
struct ConsumerEndpoint {
  zel::string queueName;  // derived from the url: 32 lower-case hexadecimal characters
  zel::wstring url;
  zel::string consumer;  // whose submissions go to this row; empty if the settings name no consumers
};

// The settings that a cycle works with. The sender holds the current ones under its settings lock; a cycle
// copies them.
struct SenderSnapshot {
  zel::vector_t<ConsumerEndpoint> endpoints;  // always sorted by queueName
  std::uint32_t packetLimit = 1;              // maximum number of items in a packet
  std::uint32_t queueLimit = 10;              // size limit of each queue, in units of 1024 bytes
  std::uint32_t sendTimeout = 1000;  // delay before the next cycle while data remains, in milliseconds
};

// The size limit of one queue in bytes. A limit of 4 GiB or more wraps around.
inline std::uint32_t QueueLimitBytes(const SenderSnapshot& snapshot) { return snapshot.queueLimit << 10; }

// A submission that isn't in a queue yet.
struct PendingStatistic {
  zel::string consumer;  // empty: for all
  zel::string payload;   // the JSON text of the record
};

// Bytes of item data in the requests of one cycle.
struct SendTotals {
  std::uint32_t needToSend = 0;  // not acknowledged; 1 if the gate is closed
  std::uint32_t sent = 0;        // answered with status 200
};

// What the next cycle must update. SetSettings writes tableReplaced, or both.
inline constexpr std::uint32_t queueLimitChanged = 1;
inline constexpr std::uint32_t tableReplaced = 2;

}  // namespace orvel::veld_report
