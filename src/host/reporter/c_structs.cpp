#include "host/reporter/c_structs.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace veld_report {
namespace {

using std::chrono::milliseconds;

std::vector<std::string> TextsOf(const char* const* texts, std::size_t count) {
  std::vector<std::string> result;
  for (std::size_t i = 0; i < count; ++i) result.push_back(TextOf(texts[i]));
  return result;
}

std::vector<Endpoint> EndpointsOf(const veld_report_endpoint* given, std::size_t count) {
  std::vector<Endpoint> result;
  for (std::size_t i = 0; i < count; ++i) {
    result.push_back({TextOf(given[i].url), TextOf(given[i].consumer),
                      TextsOf(given[i].certificates, given[i].certificate_count), TextOf(given[i].compress)});
  }
  return result;
}

// The first header's endpoint, which ended with the consumer.
std::vector<Endpoint> FirstEndpointsOf(const void* given, std::size_t count) {
  struct FirstEndpoint {
    const char* url;
    const char* consumer;
  };
  std::vector<Endpoint> result;
  for (std::size_t i = 0; i < count; ++i) {
    const FirstEndpoint& each = static_cast<const FirstEndpoint*>(given)[i];
    result.push_back({.url = TextOf(each.url), .consumer = TextOf(each.consumer)});
  }
  return result;
}

PlainVector<CommonMember> CommonOf(const veld_report_member* given, std::size_t count) {
  PlainVector<CommonMember> result;
  for (std::size_t i = 0; i < count; ++i) result.push_back({TextOf(given[i].name), TextOf(given[i].value)});
  return result;
}

template <class T>
void SetIfGiven(T& option, std::uint32_t value) {
  if (value != 0) option = T(value);
}

// For limits that the C++ interface switches off with 0.
template <class T>
void SetLimit(T& option, T value) {
  if (value != 0) option = value == T(VELD_REPORT_NO_LIMIT) ? 0 : value;
}

std::uint32_t GivenLimit(std::uint32_t limit) { return limit == 0 ? UINT32_MAX : limit; }

// The members that the options and the settings have in common, apart from the endpoints.
template <class Given, class Options>
void SetCommon(const Given& given, Options& options) {
  SetLimit(options.packetLimit, given.packet_limit);
  SetIfGiven(options.queueLimitKb, given.queue_limit_kb);
  SetIfGiven(options.retryAfter, given.retry_after_s);
  SetLimit(options.packetLimitKb, given.packet_limit_kb);
  SetIfGiven(options.sendEvery, given.send_every_s);
  options.allowHttp = given.allow_http != 0;
  options.common = CommonOf(given.common, given.common_count);
}

veld_report_count CountOf(ItemCount count) { return {count.items, count.bytes}; }

veld_report_ledger LedgerOf(const QueueLedger& ledger) {
  return {CountOf(ledger.accepted), CountOf(ledger.delivered), CountOf(ledger.evicted),
          CountOf(ledger.rejected), CountOf(ledger.removed),   CountOf(ledger.waiting),
          CountOf(ledger.returned), CountOf(ledger.expired),   CountOf(ledger.damaged)};
}

// What a veld_report_settings points to.
struct SettingsMemory {
  Settings settings;
  std::vector<std::vector<const char*>> certificates{};
  std::vector<veld_report_endpoint> endpoints{};
  std::vector<veld_report_member> common{};
};

}  // namespace

ReporterOptions OptionsOf(const veld_report_options& given) {
  ReporterOptions options;
  options.store = TextOf(given.store);
  options.endpoints = given.struct_size <= offsetof(veld_report_options, proxy)
                          ? FirstEndpointsOf(given.endpoints, given.endpoint_count)
                          : EndpointsOf(given.endpoints, given.endpoint_count);
  SetCommon(given, options);
  options.closeDeadline = milliseconds(0);
  options.signingKeyFile = TextOf(given.signing_key_file);
  options.listener = ListenerOf(given.listener, given.listener_context);
  options.lossListener = LossListenerOf(given.loss_listener, given.loss_context);
  options.sendingAllowed = given.hold_sending == 0;
  options.stamp = given.stamp != 0;
  SetLimit(options.memoryLimitRecords, given.memory_limit_records);
  SetLimit(options.memoryLimitBytes, given.memory_limit_bytes);
  if (given.max_age_ms != VELD_REPORT_NO_LIMIT) {
    options.maxAge =
        milliseconds(static_cast<std::int64_t>(std::min<std::uint64_t>(given.max_age_ms, INT64_MAX)));
  }
  SetLimit(options.storeLimitBytes, given.store_limit_bytes);
  options.commitEveryRecord = given.commit_every_record != 0;
  options.syncEveryCommit = given.sync_every_commit != 0;
  options.storeWithin = milliseconds(given.store_within_ms);
  options.secureDelete = given.secure_delete != 0;
  options.shared = given.shared != 0;
  if (given.proxy) options.proxy = given.proxy;
  options.headers = TextsOf(given.headers, given.header_count);
  options.userAgent = TextOf(given.user_agent);
  options.caFile = TextOf(given.ca_file);
  options.traceFile = TextOf(given.trace_file);
  options.traceLevel = given.trace_level;
  if (given.log) {
    options.log = [log = given.log, context = given.log_context](std::uint32_t level, std::string_view text) {
      log(context, level, std::string(text).c_str());
    };
  }
  options.modulePath = TextOf(given.module_path);
  return options;
}

Settings SettingsOf(const veld_report_settings& given) {
  Settings settings;
  settings.endpoints = EndpointsOf(given.endpoints, given.endpoint_count);
  SetCommon(given, settings);
  if (given.signing_key_file) settings.signingKeyFile = given.signing_key_file;
  return settings;
}

Listener ListenerOf(veld_report_listener listener, void* context) {
  if (!listener) return {};
  return [listener, context](const FinishedRequest& finished) {
    const veld_report_request request = {sizeof request,
                                         finished.url.c_str(),
                                         finished.result,
                                         finished.status,
                                         finished.endpoint.c_str(),
                                         finished.text.c_str(),
                                         finished.records,
                                         finished.bytes};
    listener(context, &request);
  };
}

LossListener LossListenerOf(veld_report_loss_listener listener, void* context) {
  if (!listener) return {};
  return [listener, context](const Loss& lost) {
    const veld_report_loss loss = {sizeof loss, lost.url.c_str(), LossReasonText(lost.reason),
                                   lost.why.c_str(), CountOf(lost.count)};
    listener(context, &loss);
  };
}

veld_report_settings CSettingsOf(Settings given) {
  auto memory = std::make_unique<SettingsMemory>(SettingsMemory{std::move(given)});
  const Settings& settings = memory->settings;
  for (const Endpoint& endpoint : settings.endpoints) {
    auto& certificates = memory->certificates.emplace_back();
    for (const std::string& each : endpoint.certificates) certificates.push_back(each.c_str());
    memory->endpoints.push_back({endpoint.url.c_str(),
                                 endpoint.consumer.c_str(),
                                 certificates.data(),
                                 certificates.size(),
                                 endpoint.compress.c_str(),
                                 {}});
  }
  for (const CommonMember& each : settings.common) {
    memory->common.push_back({each.name.c_str(), each.value.c_str()});
  }
  veld_report_settings result{};
  result.struct_size = sizeof result;
  result.endpoints = memory->endpoints.data();
  result.endpoint_count = memory->endpoints.size();
  result.packet_limit = GivenLimit(settings.packetLimit);
  result.queue_limit_kb = settings.queueLimitKb;
  result.retry_after_s = static_cast<std::uint32_t>(settings.retryAfter.count());
  result.packet_limit_kb = GivenLimit(settings.packetLimitKb);
  result.send_every_s = static_cast<std::uint32_t>(settings.sendEvery.count());
  result.allow_http = settings.allowHttp ? 1 : 0;
  result.common = memory->common.data();
  result.common_count = memory->common.size();
  result.memory = memory.release();
  return result;
}

void FreeSettings(void* memory) noexcept { delete static_cast<SettingsMemory*>(memory); }

veld_report_statistics CStatisticsOf(const Statistics& stats) {
  const QueueLedger& total = stats.total;
  return {sizeof(veld_report_statistics),
          stats.submitted,
          stats.refused,
          total.accepted.items,
          total.delivered.items,
          total.evicted.items,
          total.rejected.items,
          total.removed.items,
          total.waiting.items,
          total.waiting.bytes,
          stats.inMemory,
          LedgerOf(total)};
}

veld_report_endpoint_statistics CStatisticsOf(const EndpointStatistics& endpoint) {
  veld_report_endpoint_statistics result{};
  result.struct_size = sizeof result;
  result.url = endpoint.url.c_str();
  result.consumer = endpoint.consumer.c_str();
  result.last_error = endpoint.lastError.c_str();
  result.last_status = endpoint.lastStatus;
  if (endpoint.waitsUntil) {
    result.waits_until_ms =
        std::chrono::duration_cast<milliseconds>(endpoint.waitsUntil->time_since_epoch()).count();
  }
  result.queue = LedgerOf(endpoint.ledger);
  return result;
}

}  // namespace veld_report
