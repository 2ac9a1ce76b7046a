// The modes of the program. Each is one measurement and returns what it found. They throw std::exception.
#pragma once

#include "bench/road/meters.h"
#include "bench/road/options.h"

namespace veld_report::bench {

Result MeasureRoad(const RoadOptions& options);
Result MeasureReporter(const RoadOptions& options);
Result MeasurePush(const RoadOptions& options);
Result MeasureDrain(const RoadOptions& options);
Result MeasureEviction(const RoadOptions& options);
Result MeasureStart(const RoadOptions& options);
Result MeasureQueues(const RoadOptions& options);
Result FillOnly(const RoadOptions& options);

}  // namespace veld_report::bench
