// The options of veld_bench_end_to_end.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::bench {

struct RunOptions {
  std::string mode = "end-to-end";
  std::uint64_t records = 100000;
  std::uint64_t size = 200;    // of a record in JSON, in bytes
  std::uint64_t urls = 1;      // each with its own consumer; records go round-robin
  std::uint64_t active = 1;    // mode queues: the number of urls that have items
  std::uint64_t packet = 100;  // maximum number of items in a request
  std::uint64_t pending = 0;   // records in memory at which a producer waits; 0: no limit
  std::uint64_t fill = 0;      // items in the store before the measurement
  std::uint64_t rounds = 1;    // in modes drain and queues
  std::uint64_t seconds = 60;  // in modes idle, down, trickle, paced and tail
  std::uint64_t rate = 0;      // in modes paced and tail: calls a second; 0, in tail: as many as possible
  std::uint64_t storeWithinMs = 0;  // in mode paced; 0: the default
  std::uint64_t queueLimitKb = 4000000;
  std::uint64_t port = 0;        // of the sink; 0: a free one
  std::uint64_t timeoutS = 600;  // after this the run has failed
  std::string beside{};          // in mode tail: what else happens
  std::string store{};           // kept; empty: a temporary folder
  // In mode reporter: none, gzip or zstd. If it is given, the records are stamped and differ from each other,
  // as those of an application do.
  std::string compress{};
};

// Throws std::invalid_argument with the usage text.
RunOptions ParseOptions(int argc, char** argv);

}  // namespace veld_report::bench
