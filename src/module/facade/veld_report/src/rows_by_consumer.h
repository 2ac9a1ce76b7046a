// RowsByConsumer finds the rows of the working table for a submission without a full scan.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <new>
#include <vector>

#include "facade/veld_report/src/sender_records.h"

namespace orvel::veld_report {

// The rows ordered by consumer, for one drain. The table must not move or change meanwhile. A short table is
// scanned row by row, and so is one for which there is no memory.
class RowsByConsumer {
 public:
  explicit RowsByConsumer(const zel::vector_t<ConsumerEndpoint>& rows) noexcept : rows_(rows) {
    if (rows.size() <= maxScan) return;
    try {
      for (const ConsumerEndpoint& row : rows) order_.push_back(&row);
      // By consumer; within a consumer, in the order of the table.
      std::sort(order_.begin(), order_.end(),
                [](const ConsumerEndpoint* left, const ConsumerEndpoint* right) {
                  if (left->consumer < right->consumer) return true;
                  return left->consumer == right->consumer && std::less<>()(left, right);
                });
    } catch (const std::bad_alloc&) {
      order_.clear();
    }
  }

  // Visits the rows of `consumer`, or all rows if it is empty, in the order of the table.
  template <class Visit>
  void Each(const zel::string& consumer, Visit&& visit) const {
    if (consumer.empty() || order_.empty()) {
      for (const ConsumerEndpoint& row : rows_) {
        if (consumer.empty() || row.consumer == consumer) visit(row);
      }
      return;
    }
    auto place = std::lower_bound(
        order_.begin(), order_.end(), consumer,
        [](const ConsumerEndpoint* row, const zel::string& wanted) { return row->consumer < wanted; });
    for (; place != order_.end() && (*place)->consumer == consumer; ++place) visit(**place);
  }

 private:
  static constexpr std::uint64_t maxScan = 16;

  const zel::vector_t<ConsumerEndpoint>& rows_;
  std::vector<const ConsumerEndpoint*> order_;
};

}  // namespace orvel::veld_report
