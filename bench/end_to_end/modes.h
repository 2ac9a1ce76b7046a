// The modes of the program. Each is one measurement and returns its results. They throw std::exception.
#pragma once

#include "bench/end_to_end/meters.h"
#include "bench/end_to_end/options.h"

namespace veld_report::bench {

Result MeasureEndToEnd(const RunOptions& options);
Result MeasureReporter(const RunOptions& options);
Result MeasurePush(const RunOptions& options);
Result MeasureDrain(const RunOptions& options);
Result MeasureEviction(const RunOptions& options);
Result MeasureStart(const RunOptions& options);
Result MeasureQueues(const RunOptions& options);
Result MeasureIdle(const RunOptions& options);
Result MeasureDown(const RunOptions& options);
Result MeasureTrickle(const RunOptions& options);
Result MeasurePaced(const RunOptions& options);
Result MeasureTail(const RunOptions& options);
Result FillOnly(const RunOptions& options);

}  // namespace veld_report::bench
