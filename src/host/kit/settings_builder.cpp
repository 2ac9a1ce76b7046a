#include "host/kit/settings_builder.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "host/base/printable.h"
#include "host/base/redact.h"
#include "host/base/text.h"
#include "host/http/certificates.h"
#include "host/http/url_check.h"

namespace veld_report::host {
namespace {

// The module multiplies both in 32 bits: seconds to milliseconds, and units of 1024 bytes to bytes.
constexpr std::uint32_t maxSendTimeoutS = 4294967;
constexpr std::uint32_t largestQueueLimitKb = 4194303;

bool HasScheme(std::string_view url, std::string_view scheme) {
  const auto same = [](char wanted, char given) { return (given | 0x20) == wanted || given == wanted; };
  return url.size() > scheme.size() && std::equal(scheme.begin(), scheme.end(), url.begin(), same);
}

bool IsHttpUrl(std::string_view url) { return HasScheme(url, "http://") || HasScheme(url, "https://"); }

void CheckLimit(const char* name, std::uint32_t value, std::uint32_t min, std::uint32_t max) {
  if (value >= min && value <= max) return;
  throw std::invalid_argument(std::string("settings: ") + name + " is " + std::to_string(value) +
                              "; it must be " + std::to_string(min) + " to " + std::to_string(max));
}

[[noreturn]] void Refuse(std::uint64_t index, const KitEndpoint& endpoint, const std::string& why) {
  throw std::invalid_argument("settings: endpoint " + std::to_string(index + 1) + " (" +
                              WithoutControls(WithoutCredentials(endpoint.url)) + "): " + why);
}

void CheckUrlOf(const KitEndpoint& endpoint, std::uint64_t index, bool allowHttp) {
  const UrlCheck check = CheckUrl(endpoint.url);
  if (!check.wrong.empty()) Refuse(index, endpoint, "the url isn't valid: " + check.wrong);
  if (check.isTls || check.isLoopback || allowHttp) return;
  Refuse(index, endpoint,
         "with http, anyone on the way can read the records, and acknowledge them so that they are deleted; "
         "use https, or allow http with allowHttp (veldrep: --allow-http)");
}

void CheckCertificates(const KitEndpoint& endpoint, std::uint64_t index) {
  if (endpoint.certificates.empty()) return;
  if (!HasScheme(endpoint.url, "https://")) {
    Refuse(index, endpoint,
           "it has certificates or pins, but without TLS nothing checks them; use https, or leave them out");
  }
  try {
    ReadCertificates({endpoint.certificates.begin(), endpoint.certificates.end()});
  } catch (const std::invalid_argument& error) {
    Refuse(index, endpoint, error.what());
  }
}

}  // namespace

BuiltSettings::BuiltSettings(const KitSettings& settings) {
  CheckLimit("queueLimitKb", settings.queueLimitKb, 1, largestQueueLimitKb);
  CheckLimit("sendTimeoutS", settings.sendTimeoutS, 0, maxSendTimeoutS);
  record_.packetLimit = settings.packetLimit;
  record_.queueLimit = settings.queueLimitKb;
  record_.sendTimeout = settings.sendTimeoutS;
  record_.urls.append(settings.endpoints.size());
  for (std::uint64_t i = 0; i < settings.endpoints.size(); ++i) {
    AddEndpoint(settings.endpoints[i], i);
    CheckUrlOf(settings.endpoints[i], i, settings.allowHttp);
  }
  const auto isNamed = [](const KitEndpoint& endpoint) { return !endpoint.consumer.empty(); };
  if (std::none_of(settings.endpoints.begin(), settings.endpoints.end(), isNamed)) return;
  for (const KitEndpoint& endpoint : settings.endpoints)
    record_.consumers.push_back(ToNarrow(endpoint.consumer));
}

void BuiltSettings::AddEndpoint(const KitEndpoint& endpoint, std::uint64_t index) {
  if (!IsHttpUrl(endpoint.url)) Refuse(index, endpoint, "the url must begin with http:// or https://");
  if (endpoint.consumer == triggerConsumer)
    Refuse(index, endpoint, "this consumer name is reserved for the kit");
  CheckCertificates(endpoint, index);
  AddCoding(endpoint, index);
  orvel::veld_report::UrlEntry& entry = record_.urls[index];
  try {
    entry.url = ToWide(endpoint.url);
  } catch (const std::invalid_argument& error) {
    Refuse(index, endpoint, std::string("the url is ") + error.what());
  }
  zel::vector_t<HttpCertificate> texts;
  for (const std::string& text : endpoint.certificates) texts.push_back(ToNarrow(text));
  using orvel::veld_report::OpaqueCertificate;
  entry.certificates.first = reinterpret_cast<const OpaqueCertificate*>(texts.first);
  entry.certificates.last = reinterpret_cast<const OpaqueCertificate*>(texts.last);
  entry.certificates.end = reinterpret_cast<const OpaqueCertificate*>(texts.end);
  certificates_.push_back(std::move(texts));  // moving a vector doesn't move its elements
  urls_.push_back(endpoint.url);
}

void BuiltSettings::AddCoding(const KitEndpoint& endpoint, std::uint64_t index) {
  const std::optional<BodyCoding> coding = ReadBodyCoding(endpoint.compress);
  if (!coding) {
    Refuse(index, endpoint,
           "compress is " + Printable(endpoint.compress) + "; it must be none, gzip or zstd");
  }
  const auto [row, added] = codings_.try_emplace(endpoint.url, *coding);
  if (!added && row->second != *coding) {
    Refuse(index, endpoint,
           std::string("another endpoint with this url has compress = ") + NameOf(row->second) +
               "; they share a queue, so they must have the same");
  }
}

}  // namespace veld_report::host
