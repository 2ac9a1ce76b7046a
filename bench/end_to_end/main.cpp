// veld_bench_end_to_end: what a record costs from submission to acknowledgement, and how that scales.
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "bench/end_to_end/modes.h"

int main(int argc, char** argv) {
  using namespace veld_report::bench;
  const std::map<std::string, std::function<Result(const RunOptions&)>> modes = {
      {"end-to-end", MeasureEndToEnd}, {"reporter", MeasureReporter},
      {"push", MeasurePush},           {"drain", MeasureDrain},
      {"evict", MeasureEviction},      {"start", MeasureStart},
      {"queues", MeasureQueues},       {"fill", FillOnly},
      {"idle", MeasureIdle},           {"down", MeasureDown},
      {"trickle", MeasureTrickle},     {"paced", MeasurePaced},
      {"tail", MeasureTail},
  };
  try {
    const RunOptions options = ParseOptions(argc, argv);
    const auto mode = modes.find(options.mode);
    if (mode == modes.end()) throw std::invalid_argument("there is no mode " + options.mode);
    std::puts(mode->second(options).Text().c_str());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veld_bench_end_to_end: %s\n", error.what());
    return 1;
  }
}
