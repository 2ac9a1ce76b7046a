// What the page's script reads, as JSON on one line. The names are those of the script (assets/); both are of
// one version always, so they may change.
//
// Texts of clients are data here as everywhere: the script only ever makes text nodes of them.
#pragma once

#include <string>
#include <vector>

#include "server/page/member_table.h"
#include "server/page/rate_history.h"
#include "server/page/record_window.h"
#include "server/page/refused_list.h"
#include "server/page/server_counters.h"
#include "server/page/source_table.h"

namespace veld_report::server {

struct PageTotals {
  ServerTotals totals;
  RateSample second;  // what has come in the latest whole second
  ServerLoad load;
  double sinkMedian = 0, sinkSlow = 0;  // seconds that 50 % and 99 % of the sink's calls didn't exceed
  std::uint64_t skipped = 0;            // records that the page left out
};

std::string TotalsJson(const PageTotals& totals);
// `serverUrl`: where messages are sent to.
std::string StateJson(const std::string& serverUrl, std::chrono::system_clock::time_point started,
                      const PageTotals& totals, const RateHistory& history);
std::string SourcesJson(const std::vector<SourceFigures>& sources);
std::string MembersJson(const MemberTable& table);
std::string RefusedJson(const std::vector<RefusedRequest>& requests);
// A line of the list of records: the beginning of its text, and where it came from.
std::string RecordLineJson(const ShownRecord& record);
// All about one record. `others`: the numbers of its packet's records that are still there.
std::string RecordJson(const ShownRecord& record, const std::vector<std::uint64_t>& others);

}  // namespace veld_report::server
