// What bench/road is asked to do.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::bench {

struct RoadOptions {
  std::string mode = "road";
  std::uint64_t records = 100000;
  std::uint64_t size = 200;    // of a record as JSON, in bytes
  std::uint64_t threads = 1;   // that submit
  std::uint64_t urls = 1;      // each with a consumer of its own; records go to them in turn
  std::uint64_t active = 1;    // in mode queues: how many of the urls have items
  std::uint64_t packet = 100;  // most items in a request
  std::uint64_t pending = 0;   // records that may stand in memory before a producer waits; 0: any number
  std::uint64_t fill = 0;      // items that wait in the store before anything is measured
  std::uint64_t rounds = 1;    // in modes drain and queues
  std::uint64_t queueLimitKb = 4000000;
  std::uint64_t group = 0;       // operations in a transaction of the store; 0: the store's default
  std::uint64_t port = 0;        // of the sink; 0: a free one
  std::uint64_t timeoutS = 600;  // then the run is given up as failed
  bool sync = false;             // every transaction is synced
  bool everyPush = false;        // every push is a transaction
  bool count = false;            // the sink decodes and counts what it gets
  bool natural = false;          // cycles come when the timer says, and aren't brought forward
  std::string store{};           // kept; empty: a folder that is removed at the end
};

// Throws std::invalid_argument with the usage text.
RoadOptions ParseOptions(int argc, char** argv);

}  // namespace veld_report::bench
