#include "apps/veldrep/send_session.h"

#include <utility>

#include "apps/veldrep/command.h"
#include "host/platform/file.h"
#include "host/queue/item_key.h"
#include "veld_report/code_text.h"

namespace veld_report::app {
namespace {

constexpr std::uint64_t memoryLimitBytes = 64 << 20;
// The memory of a record in addition to its text.
constexpr std::uint64_t overheadBytes = 250;

std::vector<std::string> Certificates(const SendOptions& options) {
  std::vector<std::string> texts;
  for (const std::string& each : options.certificates)
    texts.push_back(each.starts_with("sha256//") ? each : ReadWhole(each));
  return texts;
}

}  // namespace

SendSession::SendSession(const SendOptions& options, std::function<void(const Ledgers&)> onOpened)
    : to_(options.to),
      urls_(options.urls),
      kit_(std::make_unique<host::HostKit>(KitOptions(options, std::move(onOpened)))),
      memory_(*kit_, memoryLimitBytes),
      queues_(&kit_->Queues()) {}

host::HostKitOptions SendSession::KitOptions(const SendOptions& options,
                                             std::function<void(const Ledgers&)> onOpened) {
  host::HostKitOptions kit;
  kit.modulePath = options.modulePath;
  const std::vector<std::string> certificates = Certificates(options);
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    host::KitEndpoint endpoint{options.urls[i], options.consumers.empty() ? "" : options.consumers[i]};
    endpoint.compress = options.compress;
    if (options.urls[i].starts_with("https://")) endpoint.certificates = certificates;
    kit.settings.endpoints.push_back(std::move(endpoint));
  }
  kit.settings.packetLimit = options.packetLimit;
  kit.settings.queueLimitKb = options.queueLimitKb;
  kit.settings.sendTimeoutS = options.sendTimeoutSeconds;
  kit.settings.allowHttp = options.allowHttp;
  kit.stamp = options.stamp;
  kit.queues.folder = host::FromUtf8(options.store);
  kit.queues.pushesWait = true;
  kit.onOpened = [onOpened = std::move(onOpened)](host::QueueService& queues) { onOpened(queues.Ledgers()); };
  kit.trace.path = options.trace;
  kit.trace.level = options.trace.empty() ? 0 : options.traceLevel;
  kit.settings.signingKeyFile = options.signKey;
  kit.onRequestFinished = [this](const FinishedRequest& request) { OnRequestFinished(request); };
  return kit;
}

std::string SendSession::Submit(std::string_view json) {
  const host::Submission submission = kit_->SubmitJson(to_, json);
  if (!submission.Accepted()) return "the sender rejected it: " + CodeText(submission.code);
  memory_.Add(submission.bytes + overheadBytes);
  return {};
}

std::map<std::string, std::uint64_t> SendSession::StoredItems() {
  auto items = queues_->LastTokens();
  for (auto& [queue, token] : items) token = host::PositionOf(token);
  return items;
}

void SendSession::TriggerCycle() {
  kit_->TriggerCycle();
  RunSoon();
}

void SendSession::RunSoon() { kit_->BeginDrain(); }

void SendSession::OnRequestFinished(const FinishedRequest& request) {
  // A request that was cancelled by the end of the session isn't a failure of its server.
  if (request.result == zel::eOperationCancelled) return;
  const std::lock_guard lock(mutex_);
  if (request.result == zel::sOk) {
    if (failingUrl_ == request.url) failures_.last.clear();
    return;
  }
  if (request.status != 0) ++failures_.answered;
  failures_.last = request.endpoint + ": " + request.text;
  failingUrl_ = request.url;
}

std::string SendSession::WhyRecordsStandBack() const {
  for (const std::string& url : urls_) {
    const auto state = kit_->Http().StateOf(url);
    if (state && !state->lastError.empty()) return state->url + ": " + state->lastError;
  }
  return {};
}

SendSession::Failures SendSession::RequestFailures() const {
  const std::lock_guard lock(mutex_);
  return failures_;
}

}  // namespace veld_report::app
