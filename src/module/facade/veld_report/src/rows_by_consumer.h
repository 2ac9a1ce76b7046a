// RowsByConsumer finds the rows of the working table that take a submission, without a look at all of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <new>
#include <vector>

#include "facade/veld_report/src/sender_records.h"

namespace orvel::veld_report {

// An order of the rows by consumer, for one drain. The table stays where it is and doesn't change meanwhile.
// A short table, or one for whose order there is no memory, is searched row by row.
class RowsByConsumer {
 public:
  explicit RowsByConsumer(const zel::vector_t<ConsumerEndpoint>& rows) noexcept : rows_(rows) {
    if (rows.size() <= longestScan) return;
    try {
      for (const ConsumerEndpoint& row : rows) order_.push_back(&row);
      // By consumer, and in the order of the table among the rows of one.
      std::sort(order_.begin(), order_.end(),
                [](const ConsumerEndpoint* left, const ConsumerEndpoint* right) {
                  if (left->consumer < right->consumer) return true;
                  return left->consumer == right->consumer && std::less<>()(left, right);
                });
    } catch (const std::bad_alloc&) {
      order_.clear();
    }
  }

  // Visits the rows of `consumer`, or all rows if that is empty, in the order of the table.
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
  static constexpr std::uint64_t longestScan = 16;

  const zel::vector_t<ConsumerEndpoint>& rows_;
  std::vector<const ConsumerEndpoint*> order_;
};

}  // namespace orvel::veld_report
