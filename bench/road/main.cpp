// veld_bench_road: what a record costs on its whole way, and what becomes of that with more of everything.
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "bench/road/modes.h"

int main(int argc, char** argv) {
  using namespace veld_report::bench;
  const std::map<std::string, std::function<Result(const RoadOptions&)>> modes = {
      {"road", MeasureRoad},      {"reporter", MeasureReporter},
      {"push", MeasurePush},      {"drain", MeasureDrain},
      {"evict", MeasureEviction}, {"start", MeasureStart},
      {"queues", MeasureQueues},  {"fill", FillOnly},
  };
  try {
    const RoadOptions options = ParseOptions(argc, argv);
    const auto mode = modes.find(options.mode);
    if (mode == modes.end()) throw std::invalid_argument("there is no mode " + options.mode);
    std::puts(mode->second(options).Text().c_str());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veld_bench_road: %s\n", error.what());
    return 1;
  }
}
