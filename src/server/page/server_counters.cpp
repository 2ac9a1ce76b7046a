#include "server/page/server_counters.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace veld_report::server {
namespace {

constexpr double nanosecondsInASecond = 1e9;

std::string Number(double value) {
  constexpr int digits = 12;
  std::array<char, 32> text{};
  return {text.data(),
          std::to_chars(text.begin(), text.end(), value, std::chars_format::general, digits).ptr};
}

// Adds families of the exposition format to a text.
class MetricsWriter {
 public:
  void Family(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
    text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
  }
  // `labels`: with braces, or empty.
  void Sample(const std::string& labels, const std::string& value, std::string_view suffix = {}) {
    text_.append(name_).append(suffix).append(labels).append(" ").append(value).append("\n");
  }
  void Single(std::string_view name, std::string_view type, std::string_view help, const std::string& value) {
    Family(name, type, help);
    Sample("", value);
  }
  std::string Take() { return std::move(text_); }

 private:
  std::string name_, text_;
};

}  // namespace

void ServerCounters::Stored(const StoreResult& result, std::size_t bodyBytes,
                            std::chrono::nanoseconds sinkTime) {
  constexpr std::size_t statusOk = 200;
  ++byStatus_[statusOk];
  records_ += result.stored;
  repeated_ += result.repeated;
  bodyBytes_ += bodyBytes;
  sinkNanoseconds_ += static_cast<std::uint64_t>(sinkTime.count());
  const double seconds = static_cast<double>(sinkTime.count()) / nanosecondsInASecond;
  const auto* const limit = std::lower_bound(sinkClasses.begin(), sinkClasses.end(), seconds);
  ++sinkTimes_[static_cast<std::size_t>(limit - sinkClasses.begin())];
}

void ServerCounters::Refused(unsigned status, RefusalReason reason, std::size_t bodyBytes) {
  ++byStatus_[std::min(status, statusLimit - 1)];
  ++byReason_[static_cast<std::size_t>(reason)];
  bodyBytes_ += bodyBytes;
}

ServerTotals ServerCounters::Totals() const {
  ServerTotals totals;
  for (const Counter& each : sinkTimes_) totals.messages += each;
  totals.records = records_;
  totals.repeated = repeated_;
  totals.bodyBytes = bodyBytes_;
  for (std::size_t i = 0; i < refusalCount; ++i) totals.refused += totals.byReason[i] = byReason_[i];
  for (std::size_t i = 0; i < cutCount; ++i) totals.cut[i] = cut_[i];
  return totals;
}

double ServerCounters::SinkSeconds(double share) const {
  double left = static_cast<double>(Totals().messages) * share;
  if (left == 0) return 0;
  for (std::size_t i = 0; i < sinkClasses.size(); ++i) {
    left -= static_cast<double>(sinkTimes_[i]);
    if (left <= 0) return sinkClasses[i];
  }
  return sinkClasses.back();
}

std::string ServerCounters::MetricsText(const ServerLoad& load) const {
  MetricsWriter out;
  out.Family("veldrep_requests_total", "counter", "Requests by the status of their answer.");
  for (unsigned status = 0; status < statusLimit; ++status) {
    if (byStatus_[status] == 0) continue;
    const std::string label = status == 0 ? "none" : std::to_string(status);
    out.Sample("{status=\"" + label + "\"}", std::to_string(byStatus_[status]));
  }
  out.Family("veldrep_refused_requests_total", "counter", "Requests that stored nothing, by reason.");
  for (std::size_t i = 0; i < refusalCount; ++i)
    out.Sample(std::string("{reason=\"") + refusalNames[i] + "\"}", std::to_string(byReason_[i]));
  out.Family("veldrep_cut_connections_total", "counter", "Connections that the server has cut, by reason.");
  for (std::size_t i = 0; i < cutCount; ++i)
    out.Sample(std::string("{reason=\"") + cutNames[i] + "\"}", std::to_string(cut_[i]));
  out.Single("veldrep_records_stored_total", "counter", "Records stored.", std::to_string(records_));
  out.Single("veldrep_records_repeated_total", "counter", "Records that the sink had already.",
             std::to_string(repeated_));
  out.Single("veldrep_body_bytes_total", "counter", "Bytes of the bodies that were read.",
             std::to_string(bodyBytes_));

  out.Family("veldrep_sink_seconds", "histogram", "Time that the sink took to store a message.");
  std::uint64_t below = 0;
  for (std::size_t i = 0; i < sinkTimes_.size(); ++i) {
    below += sinkTimes_[i];
    const std::string limit = i < sinkClasses.size() ? Number(sinkClasses[i]) : "+Inf";
    out.Sample("{le=\"" + limit + "\"}", std::to_string(below), "_bucket");
  }
  out.Sample("", Number(static_cast<double>(sinkNanoseconds_) / nanosecondsInASecond), "_sum");
  out.Sample("", std::to_string(below), "_count");

  out.Single("veldrep_connections", "gauge", "Connections of senders.", std::to_string(load.connections));
  out.Single("veldrep_connections_limit", "gauge", "The maximum number of them.",
             std::to_string(load.connectionLimit));
  out.Single("veldrep_body_memory_bytes", "gauge", "Memory for bodies in transit.",
             std::to_string(load.bodyBytes));
  out.Single("veldrep_body_memory_limit_bytes", "gauge", "The maximum of it.",
             std::to_string(load.bodyMemoryBytes));
  out.Single("veldrep_sink_failing", "gauge", "1 while records can't be stored.", load.sinkFails ? "1" : "0");
  out.Single("veldrep_page_skipped_records_total", "counter",
             "Records that the page left out because too many came at once. They are stored.",
             std::to_string(skipped_));
  const std::chrono::duration<double> started = started_.time_since_epoch();
  out.Single("process_start_time_seconds", "gauge", "Start of the server, in seconds since 1970.",
             Number(started.count()));
  return out.Take();
}

}  // namespace veld_report::server
