#include "host/reporter/kit_options.h"
#include "host/platform/file.h"

#include <stdexcept>

namespace veld_report {
namespace {

std::uint32_t SecondsOf(const char* name, std::chrono::seconds given) {
  constexpr std::int64_t maxSeconds = UINT32_MAX / 1000;
  if (given.count() >= 0 && given.count() <= maxSeconds) return static_cast<std::uint32_t>(given.count());
  throw std::invalid_argument(std::string("settings: ") + name + " is " + std::to_string(given.count()) +
                              " seconds; it must be 0 to " + std::to_string(maxSeconds));
}

}  // namespace

Settings SettingsOf(const ReporterOptions& options) {
  return {options.endpoints,  options.packetLimit,   options.queueLimitKb,
          options.retryAfter, options.packetLimitKb, options.sendEvery,
          options.allowHttp,  options.common,        options.signingKeyFile};
}

host::KitSettings KitSettingsOf(const Settings& settings) {
  host::KitSettings result;
  for (const Endpoint& endpoint : settings.endpoints) {
    result.endpoints.push_back({endpoint.url, endpoint.consumer, endpoint.certificates, endpoint.compress});
  }
  result.packetLimit = settings.packetLimit;
  result.queueLimitKb = settings.queueLimitKb;
  result.sendTimeoutS = SecondsOf("retryAfter", settings.retryAfter);
  result.packetLimitKb = settings.packetLimitKb;
  result.sendEveryS = SecondsOf("sendEvery", settings.sendEvery);
  result.allowHttp = settings.allowHttp;
  for (const CommonMember& each : settings.common) result.common.push_back({each.name, each.value});
  result.signingKeyFile = settings.signingKeyFile;
  return result;
}

host::HostKitOptions KitOptionsOf(const ReporterOptions& options) {
  if (options.store.empty()) {
    throw std::invalid_argument("reporter: no store is given; set ReporterOptions::store to a folder");
  }
  if (options.maxAge.count() < 0)
    throw std::invalid_argument("reporter: maxAge is negative; 0 means no limit");
  constexpr std::chrono::milliseconds maxStoreWithin{1000};
  if (options.storeWithin.count() < 0 || options.storeWithin > maxStoreWithin) {
    throw std::invalid_argument("reporter: storeWithin is " + std::to_string(options.storeWithin.count()) +
                                " ms; it must be 0 (with the cycle that sends) to 1000");
  }
  host::HostKitOptions result;
  if (options.storeWithin.count() != 0) result.storeWithin = options.storeWithin;
  result.modulePath = options.modulePath;
  result.settings = KitSettingsOf(SettingsOf(options));
  result.queues.folder = host::FromUtf8(options.store);
  result.queues.commitEveryPush = options.commitEveryRecord;
  result.queues.syncEveryCommit = options.syncEveryCommit;
  result.queues.secureDelete = options.secureDelete;
  result.queues.maxAge = options.maxAge;
  result.queues.storeLimitBytes = options.storeLimitBytes;
  result.queues.shared = options.shared;
  result.http.proxy = options.proxy;
  result.http.headers = options.headers;
  result.http.userAgent = options.userAgent;
  result.http.caFile = options.caFile;
  result.trace.path = options.traceFile;
  result.trace.level = options.traceLevel;
  result.trace.log = options.log;
  result.stamp = options.stamp;
  return result;
}

}  // namespace veld_report
