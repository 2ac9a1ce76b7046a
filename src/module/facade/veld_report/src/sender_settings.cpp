// The sender's settings: from the host's record to the sorted working table, as a whole or not at all.
#include <algorithm>
#include <array>
#include <new>

#include "facade/veld_report/src/veld_report_sender.h"
#include "trace/trace_stream.h"
#include "types/text_conversion.h"
#include "zel/rtl/error_handling/exception_conversion.h"

namespace orvel::veld_report {
namespace {

constexpr std::uint32_t settingsDelayMs = 1000;

// The name of a url's queue: the digest of its UTF-16 units as they are in memory, in hexadecimal. The url is
// neither converted nor normalised, so two spellings of one address give two queues.
zel::ResultCode QueueNameOf(crypto::hash::IHashCalculatorFactory& hashes, const zel::wstring& url,
                            zel::string* out) {
  zel::Ref<crypto::hash::IHashCalculator> calculator;
  {
    zel::Ref<zel::IObject> object;
    const zel::ResultCode created =
        hashes.CreateCalculator(crypto::hash::IHashCalculatorFactory::queueNameAlgorithm, object.Out());
    if (zel::Failed(created)) return created;
    const zel::ResultCode queried =
        object->QueryInterface(crypto::hash::IHashCalculator::iid, calculator.OutVoid());
    if (zel::Failed(queried)) return queried;
  }
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(url.data);
  const zel::ByteRange range{bytes, bytes + 2 * url.size};
  std::array<std::uint8_t, 16> digest{};
  if (const zel::ResultCode code = calculator->Update(&range); zel::Failed(code)) return code;
  if (const zel::ResultCode code = calculator->Finish(digest.data()); zel::Failed(code)) return code;
  *out = zel::HexText(digest.data(), digest.size());
  return zel::sOk;
}

// The rows in the order of the urls, without consumers, and the certificates in the same order.
zel::ResultCode BuildTable(crypto::hash::IHashCalculatorFactory& hashes, const zel::vector_t<UrlEntry>& urls,
                           zel::vector_t<ConsumerEndpoint>* table,
                           zel::vector_t<network_services::CertificateRow>* certificates) {
  for (const UrlEntry& entry : urls) {
    table->append(1);
    ConsumerEndpoint& row = *(table->last - 1);
    row.url = entry.url;
    if (const zel::ResultCode code = QueueNameOf(hashes, entry.url, &row.queueName); zel::Failed(code))
      return code;
    certificates->push_back({entry.certificates.first, entry.certificates.last});
  }
  return zel::sOk;
}

// A client that throws hasn't taken them. `target` stays with the caller, who releases it last.
bool UpdateCertificates(network_services::IHttpClient& client,
                        const zel::vector_t<network_services::CertificateRow>& certificates,
                        zel::Ref<network_services::IHttpClientCertificates>& target) {
  try {
    const zel::ResultCode queried =
        client.QueryInterface(network_services::IHttpClientCertificates::iid, target.OutVoid());
    if (zel::Failed(queried)) return false;
    const network_services::CertificateRange range{certificates.first, certificates.last};
    return !zel::Failed(target->SetCertificates(&range));
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    return false;
  }
}

}  // namespace

zel::ResultCode VeldReportSenderImpl::SetSettings(const SenderSettings& settings) {
  if (!constructed.load(std::memory_order_acquire)) return zel::eNotInitialized;
  try {
    return ReplaceSettings(settings);
  } catch (const std::bad_alloc&) {
    // The one failure that the caller gets as an exception. Like the others it has changed nothing.
    throw;
  } catch (...) {
    // Traces no line, as for a failing hash service.
    return zel::ReportCaughtException(static_cast<zel::ITracer*>(nullptr), nullptr);
  }
}

// Everything that can fail comes before TakeSettings, which can't.
zel::ResultCode VeldReportSenderImpl::ReplaceSettings(const SenderSettings& settings) {
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("VeldReportSenderImpl::SetSettings called... New settings: ")
        .PutUInt64(settings.urls.size());
    line.PutText(" urls; packetLimit = ").PutUInt32(settings.packetLimit);
    line.PutText("; queueLimit = ").PutUInt32(settings.queueLimit);
    line.PutText("Kb; sendTimeout = ").PutUInt32(settings.sendTimeout);
  });

  zel::vector_t<ConsumerEndpoint> table(allocator.Get());
  zel::vector_t<network_services::CertificateRow> certificates(allocator.Get());
  const zel::ResultCode built = BuildTable(*Service(), settings.urls, &table, &certificates);
  if (zel::Failed(built)) return built;

  if (!settings.consumers.empty()) {
    if (settings.consumers.size() != settings.urls.size()) return zel::eInvalidArgument;
    // Before the sort, so that a consumer stays with the url at its position.
    for (std::uint64_t i = 0; i < table.size(); ++i) table[i].consumer = settings.consumers[i];
  }
  std::sort(table.first, table.last, [](const ConsumerEndpoint& left, const ConsumerEndpoint& right) {
    return left.queueName < right.queueName;
  });

  zel::Ref<network_services::IHttpClientCertificates> target;
  if (!UpdateCertificates(*httpClient, certificates, target)) {
    zel::TraceText(tracer.Get(), zel::failureLevel, "Cann't update certificates for urls");
    return zel::eUnspecifiedError;
  }
  TakeSettings(settings, table);
  try {
    static_cast<void>(timerSink.Arm(settingsDelayMs));
  } catch (...) {
    // The settings are in force, whatever becomes of the timer.
  }
  return zel::sOk;
}

void VeldReportSenderImpl::TakeSettings(const SenderSettings& settings,
                                        zel::vector_t<ConsumerEndpoint>& table) {
  const std::lock_guard lock(settingsLock);
  // Overwrites what an earlier call left for the next cycle; the two aren't merged.
  updateFlags = tableReplaced;
  if (live.queueLimit != settings.queueLimit) updateFlags = tableReplaced | queueLimitChanged;
  live.packetLimit = settings.packetLimit;
  live.queueLimit = settings.queueLimit;
  live.sendTimeout = settings.sendTimeout * 1000u;
  live.endpoints.swap(table);
}

zel::ResultCode VeldReportSenderImpl::ReservedSettingsOperation() { return zel::eNotImplemented; }

}  // namespace orvel::veld_report
