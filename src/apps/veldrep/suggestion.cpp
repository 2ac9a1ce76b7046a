#include "apps/veldrep/suggestion.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace veld_report::app {
namespace {

// The number of characters to insert, drop or replace.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string Suggestion(const std::string& given, const std::vector<std::string>& names) {
  std::string nearest;
  std::size_t least = given.size() / 3 + 2;
  for (const std::string& name : names) {
    const std::size_t distance = Distance(given, name);
    if (distance >= least) continue;
    least = distance;
    nearest = name;
  }
  return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

}  // namespace veld_report::app
