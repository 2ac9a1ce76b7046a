#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include "veld_report/reporter.h"
#include "veld_report/veld_report.h"

struct veld_report_handle {
  veld_report::Reporter reporter;
};

namespace {

using std::chrono::milliseconds;

std::string Text(const char* text) { return text ? text : ""; }

void WriteError(std::string_view sentence, char* error, size_t size) {
  if (!error || size == 0) return;
  const size_t length = std::min(sentence.size(), size - 1);
  std::copy_n(sentence.data(), length, error);
  error[length] = '\0';
}

// Whether a caller's struct can be served: one of this header, or a shorter one of an earlier header, since
// members are only ever appended.
template <class T>
bool IsServed(size_t size, size_t required) {
  return size >= required && size <= sizeof(T);
}

template <class T>
void SetIfGiven(T& option, std::uint32_t value) {
  if (value != 0) option = T(value);
}

veld_report::ReporterOptions OptionsOf(const veld_report_options& given) {
  veld_report::ReporterOptions options;
  options.store = Text(given.store);
  for (size_t i = 0; i < given.endpoint_count; ++i) {
    options.endpoints.push_back({Text(given.endpoints[i].url), Text(given.endpoints[i].consumer), {}});
  }
  SetIfGiven(options.packetLimit, given.packet_limit);
  SetIfGiven(options.queueLimitKb, given.queue_limit_kb);
  SetIfGiven(options.retryAfter, given.retry_after_s);
  SetIfGiven(options.packetLimitKb, given.packet_limit_kb);
  SetIfGiven(options.sendEvery, given.send_every_s);
  options.allowHttp = given.allow_http != 0;
  options.closeDeadline = milliseconds(0);
  options.signingKeyFile = Text(given.signing_key_file);
  options.traceFile = Text(given.trace_file);
  options.traceLevel = given.trace_level;
  options.modulePath = Text(given.module_path);
  return options;
}

}  // namespace

int32_t veld_report_open(const veld_report_options* options, veld_report_handle** out, char* error,
                         size_t error_size) {
  if (out) *out = nullptr;
  constexpr size_t required = offsetof(veld_report_options, packet_limit);
  if (!options || !out || !IsServed<veld_report_options>(options->struct_size, required) ||
      (options->endpoint_count != 0 && !options->endpoints)) {
    WriteError("open: options, out or endpoints is NULL, or struct_size doesn't match this header", error,
               error_size);
    return zel::eInvalidArgument;
  }
  veld_report_options known{};
  std::memcpy(&known, options, options->struct_size);
  try {
    *out = new veld_report_handle{veld_report::Reporter(OptionsOf(known))};
    return zel::sOk;
  } catch (const veld_report::ReporterError& caught) {
    WriteError(caught.what(), error, error_size);
    return caught.Code();
  } catch (...) {
    WriteError("open: out of memory", error, error_size);
    return zel::eOutOfMemory;
  }
}

int32_t veld_report_send_json(veld_report_handle* reporter, const char* consumer, const char* json,
                              size_t length, char* error, size_t error_size) {
  if (!reporter || !json) {
    WriteError("send: reporter or json is NULL", error, error_size);
    return zel::eInvalidArgument;
  }
  std::string sentence;
  const int32_t code = reporter->reporter.TrySendJson({json, length}, consumer ? consumer : "", &sentence);
  if (zel::Failed(code)) WriteError(sentence, error, error_size);
  return code;
}

int32_t veld_report_flush(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.Flush(milliseconds(deadline_ms)) ? 1 : 0;
}

int32_t veld_report_flush_to_store(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.FlushToStore(milliseconds(deadline_ms)) ? 1 : 0;
}

int32_t veld_report_stats(veld_report_handle* reporter, veld_report_statistics* out) {
  constexpr size_t required = offsetof(veld_report_statistics, submitted);
  if (!reporter || !out || !IsServed<veld_report_statistics>(out->struct_size, required)) {
    return zel::eInvalidArgument;
  }
  try {
    const veld_report::Statistics stats = reporter->reporter.Stats();
    const veld_report::QueueLedger& total = stats.total;
    const veld_report_statistics known = {out->struct_size,     stats.submitted,       stats.refused,
                                          total.accepted.items, total.delivered.items, total.evicted.items,
                                          total.rejected.items, total.removed.items,   total.waiting.items,
                                          total.waiting.bytes};
    std::memcpy(out, &known, known.struct_size);
    return zel::sOk;
  } catch (const veld_report::ReporterError& caught) {
    return caught.Code();
  } catch (...) {
    return zel::eOutOfMemory;
  }
}

int32_t veld_report_close(veld_report_handle* reporter, uint32_t deadline_ms) {
  return reporter && reporter->reporter.Close(milliseconds(deadline_ms)) ? 1 : 0;
}

void veld_report_free(veld_report_handle* reporter) { delete reporter; }
