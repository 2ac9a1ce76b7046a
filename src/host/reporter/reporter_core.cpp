#include "host/reporter/reporter_core.h"

#include <algorithm>
#include <utility>

#include "host/base/redact.h"
#include "host/json/json_check.h"
#include "host/platform/file.h"
#include "host/platform/library.h"
#include "host/platform/service_thread.h"
#include "host/reporter/kit_options.h"
#include "host/services/queue_name.h"
#include "veld_report/code_text.h"

namespace veld_report {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void ThrowClosed() {
  throw ReporterError(zel::eNotInitialized, "the reporter is closed; make another one");
}

constexpr const char* inheritedText =
    "the reporter was opened before this process was forked; open another one here, on another store";

// Turns every exception into a ReporterError.
template <class Body>
auto Translated(Body&& body) {
  try {
    return body();
  } catch (const ReporterError&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw ReporterError(zel::eOutOfMemory, "the reporter is out of memory");
  } catch (const std::invalid_argument& error) {
    throw ReporterError(zel::eInvalidArgument, error.what());
  } catch (const std::exception& error) {
    throw ReporterError(zel::eUnspecifiedError, error.what());
  }
}

// The end of a given duration, however large.
Flusher::TimePoint After(milliseconds duration) {
  constexpr milliseconds maxDuration = std::chrono::hours(24 * 365);
  return steady_clock::now() + std::clamp(duration, milliseconds(0), maxDuration);
}

std::string WhyRefused(const host::Submission& submission, bool isJson, std::string_view json) {
  if (submission.tooLarge) {
    return "the record has " + std::to_string(submission.bytes) +
           " bytes, more than a queue can hold; raise queueLimitKb (and storeLimitBytes, if it is set), or "
           "send less in one record";
  }
  if (isJson && submission.code == zel::eInvalidArgument) {
    std::string why;
    if (!host::JsonCheck().IsOneValue(json, &why)) return "the text isn't one JSON value: " + why;
    return "the text isn't a JSON object; put the value into one, such as {\"value\": 1}";
  }
  std::string text = "the record can't be written as JSON";
  if (!submission.where.empty()) text += ", at " + submission.where;
  return text + ": " + CodeText(submission.code);
}

// How much longer than its deadline a close may take: 5 seconds, with a margin for a busy machine.
constexpr milliseconds closeTime{4900};

// A thread that nobody waits for must not lose its code when its library is unloaded.
void KeepLibraryLoaded() noexcept {
  host::KeepLoaded([] {});
}

std::vector<std::string> UrlsOf(const std::vector<Endpoint>& endpoints) {
  std::vector<std::string> urls;
  for (const Endpoint& endpoint : endpoints) urls.push_back(endpoint.url);
  return urls;
}

std::uint64_t LimitOf(std::uint64_t option) { return option == 0 ? UINT64_MAX : option; }

}  // namespace

void ListenerSlot::Set(Listener listener) {
  auto fresh = listener ? std::make_shared<const Listener>(std::move(listener)) : nullptr;
  const std::lock_guard lock(mutex_);
  if (!ended_) listener_.swap(fresh);
}

void ListenerSlot::End() {
  std::shared_ptr<const Listener> last;
  const std::lock_guard lock(mutex_);
  ended_ = true;
  listener_.swap(last);
}

void ListenerSlot::Call(const FinishedRequest& request) const {
  std::shared_ptr<const Listener> listener;
  {
    const std::lock_guard lock(mutex_);
    listener = listener_;
  }
  if (listener) (*listener)(request);
}

Reporter::Core::Core(ReporterOptions options)
    : closeDeadline_(std::max(options.closeDeadline, milliseconds(0))) {
  Translated([&] {
    listener_->Set(std::move(options.listener));
    host::HostKitOptions kitOptions = KitOptionsOf(options);
    kitOptions.onRequestFinished = [slot = listener_](const FinishedRequest& request) {
      slot->Call(request);
    };
    kitOptions.queues.onLoss = [losses = losses_](const std::string& queueName, LossReason reason,
                                                  ItemCount lost, const std::string& why) {
      losses->Note(queueName, reason, lost, why);
    };
    // Those of an earlier run, whose queues are about to be removed.
    for (const host::UrlState& state : host::UrlStateFile::Read(host::FromUtf8(options.store))) {
      losses_->AddQueue(state.queueName, state.http.url);
    }
    losses_->AddUrls(UrlsOf(options.endpoints));
    kit_ = std::make_unique<host::HostKit>(kitOptions);
    if (!options.sendingAllowed) ChangeConsent(&Core::sendingAllowed_, false);
    flusher_ = std::make_unique<Flusher>(*kit_);
    recordsInMemory_ = std::make_unique<host::MemoryMeter>(*kit_, LimitOf(options.memoryLimitRecords));
    bytesInMemory_ = std::make_unique<host::MemoryMeter>(*kit_, LimitOf(options.memoryLimitBytes));
    AdoptSettings(SettingsOf(options));
    losses_->SetListener(std::move(options.lossListener));
    // Sends what an earlier run left, without waiting for a first record.
    kit_->TriggerCycle();
  });
}

void Reporter::Core::RequireOwn() const {
  if (IsInherited()) throw ReporterError(zel::eInvalidState, inheritedText);
}

void Reporter::Core::Abandon(std::shared_ptr<Core> core) noexcept {
  // Kept reachable, so that it isn't reported as a leak. Nobody follows the list.
  static constinit std::atomic<Core*> abandoned{nullptr};
  Core* const first = core.get();
  first->abandoned_ = std::move(core);
  first->nextAbandoned_ = abandoned.load();
  while (!abandoned.compare_exchange_weak(first->nextAbandoned_, first)) {
  }
}

std::string Reporter::Core::CheckConsumer(std::string_view consumer) const {
  const std::lock_guard lock(settingsMutex_);
  if (settings_.endpoints.empty()) return "there is no endpoint; set one in the settings";
  if (consumer.empty() || consumers_.contains(consumer)) return {};
  return "no endpoint has the consumer \"" + std::string(consumer) + "\"; use one from the settings, or none";
}

zel::ResultCode Reporter::Core::Submit(const zel::AnyPtr* record, std::string_view json,
                                       std::string_view consumer, std::string* error) noexcept {
  try {
    const auto refuse = [&](zel::ResultCode code, std::string&& why) {
      ++refused_;
      if (error) *error = std::move(why);
      return code;
    };
    if (IsInherited()) return refuse(zel::eInvalidState, inheritedText);
    const CallGate::Pass pass(gate_);
    if (!pass) return refuse(zel::eNotInitialized, "the reporter is closed; make another one");
    std::string wrong = CheckConsumer(consumer);
    if (!wrong.empty()) return refuse(zel::eNotFound, std::move(wrong));
    if (!recordsInMemory_->HasRoom() || !bytesInMemory_->HasRoom()) {
      return refuse(zel::eOutOfSpace, "too many records are in memory; send fewer, or wait for a cycle");
    }
    const host::Submission submission =
        record ? kit_->Submit(consumer, *record) : kit_->SubmitJson(consumer, json);
    if (!submission.Accepted()) return refuse(submission.code, WhyRefused(submission, !record, json));
    recordsInMemory_->Add();
    bytesInMemory_->Add(submission.bytes);
    ++submitted_;
    return zel::sOk;
  } catch (...) {
    ++refused_;
    return zel::eOutOfMemory;
  }
}

bool Reporter::Core::Flush(milliseconds deadline) noexcept { return FlushBy(&Flusher::Flush, deadline); }

bool Reporter::Core::FlushToStore(milliseconds deadline) noexcept {
  return FlushBy(&Flusher::FlushToStore, deadline);
}

bool Reporter::Core::FlushBy(FlushForm form, milliseconds deadline) noexcept {
  if (IsInherited()) return false;
  try {
    const CallGate::Pass pass(gate_);
    if (!pass) return false;
    const TimePoint end = After(deadline);
    return ((*flusher_).*form)([&] { return gate_.IsShut() ? TimePoint::min() : end; });
  } catch (...) {
    return false;
  }
}

bool Reporter::Core::Close(milliseconds deadline) noexcept {
  if (IsInherited()) return false;
  const TimePoint end = After(deadline);
  TimePoint earliest = closeBy_.load();
  while (end < earliest && !closeBy_.compare_exchange_weak(earliest, end)) {
  }
  BeginClose();
  WaitForClose(end + closeTime);
  return flushedAtClose_;
}

void Reporter::Core::CloseUnlessBegun() noexcept {
  if (!gate_.IsShut()) Close(closeDeadline_);
}

bool Reporter::Core::IsClosed() const noexcept {
  if (IsInherited()) return false;
  const std::lock_guard lock(closeMutex_);
  return closed_;
}

void Reporter::Core::BeginClose() noexcept {
  gate_.Shut();
  {
    const std::lock_guard lock(closeMutex_);
    if (std::exchange(closing_, true)) return;
    try {
      closer_ = host::StartServiceThread("veld-close", [self = shared_from_this()] { self->RunClose(); });
      return;
    } catch (...) {
      // Without a thread the caller has to wait.
    }
  }
  RunClose();
}

void Reporter::Core::WaitForClose(TimePoint end) noexcept {
  std::unique_lock lock(closeMutex_);
  const bool ended = closedChanged_.wait_until(lock, end, [this] { return closed_; });
  if (!closer_.joinable()) return;
  if (ended) return closer_.join();
  listener_->End();
  losses_->Silence();
  KeepLibraryLoaded();
  closer_.detach();
}

bool Reporter::Core::IsAllHeldBack(TimePoint end) const {
  const auto ledgers = kit_->Queues().Ledgers();
  for (const Endpoint& endpoint : CurrentSettings().endpoints) {
    const auto ledger = ledgers.find(host::QueueNameOfUrl(endpoint.url));
    const std::int64_t waiting = ledger == ledgers.end() ? 0 : ledger->second.waiting.items;
    if (waiting != 0 && steady_clock::now() + kit_->HeldBackFor(endpoint.url, waiting) < end) return false;
  }
  return true;
}

void Reporter::Core::RunClose() noexcept {
  gate_.WaitUntilEmpty();
  try {
    flushedAtClose_ =
        flusher_->FlushUnless([this] { return !kit_->IsSendingAllowed() || IsAllHeldBack(closeBy_.load()); },
                              [this] { return closeBy_.load(); });
  } catch (...) {
    // The store can't be read, so what became of the records is unknown and the result stays false.
  }
  {
    const std::lock_guard lock(consentMutex_);
    sendingEnded_ = true;
  }
  kit_->Close();
  losses_->End();
  const std::lock_guard lock(closeMutex_);
  closed_ = true;
  closedChanged_.notify_all();
}

void Reporter::Core::AdoptSettings(const Settings& settings) {
  std::set<std::string, std::less<>> consumers;
  for (const Endpoint& endpoint : settings.endpoints) {
    if (!endpoint.consumer.empty()) consumers.insert(endpoint.consumer);
  }
  Settings copy = settings;
  copy.signingKeyFile.reset();  // whoever sets them again keeps the key
  const std::lock_guard lock(settingsMutex_);
  std::swap(settings_, copy);
  consumers_.swap(consumers);
}

void Reporter::Core::SetSettings(const Settings& settings) {
  Translated([&] {
    RequireOwn();
    const CallGate::Pass pass(gate_);
    if (!pass) ThrowClosed();
    const std::lock_guard lock(changeMutex_);
    losses_->AddUrls(UrlsOf(settings.endpoints));
    kit_->SetSettings(KitSettingsOf(settings));
    AdoptSettings(settings);
  });
}

void Reporter::Core::SetListener(Listener listener) {
  RequireOwn();
  listener_->Set(std::move(listener));
}

void Reporter::Core::SetLossListener(LossListener listener) {
  RequireOwn();
  losses_->SetListener(std::move(listener));
}

Settings Reporter::Core::CurrentSettings() const {
  RequireOwn();
  const std::lock_guard lock(settingsMutex_);
  return settings_;
}

// Holds back sending while it lives.
class Reporter::Core::Forgetting {
 public:
  explicit Forgetting(Core& core) : core_(core) { core_.ChangeConsent(&Core::forgetting_, true); }
  Forgetting(const Forgetting&) = delete;
  Forgetting& operator=(const Forgetting&) = delete;
  ~Forgetting() { core_.ChangeConsent(&Core::forgetting_, false); }

 private:
  Core& core_;
};

void Reporter::Core::AllowSending(bool allowed) noexcept {
  if (!IsInherited()) ChangeConsent(&Core::sendingAllowed_, allowed);
}

void Reporter::Core::ChangeConsent(bool Core::*part, bool value) noexcept {
  const std::lock_guard lock(consentMutex_);
  this->*part = value;
  if (!sendingEnded_) kit_->AllowSending(sendingAllowed_ && !forgetting_);
}

Statistics Reporter::Core::Stats() {
  return Translated([&] {
    RequireOwn();
    const CallGate::Pass pass(gate_);
    if (!pass) ThrowClosed();
    const auto ledgers = kit_->Queues().Ledgers();
    const auto states = kit_->Http().States();
    Statistics result;
    result.submitted = submitted_;
    result.refused = refused_;
    result.inMemory = recordsInMemory_->InMemory();
    for (const auto& [name, ledger] : ledgers) result.total += ledger;
    for (const Endpoint& endpoint : CurrentSettings().endpoints) {
      EndpointStatistics one{host::WithoutCredentials(endpoint.url), endpoint.consumer};
      const auto ledger = ledgers.find(host::QueueNameOfUrl(endpoint.url));
      if (ledger != ledgers.end()) one.ledger = ledger->second;
      const auto state =
          std::find_if(states.begin(), states.end(), [&](const auto& each) { return each.url == one.url; });
      if (state != states.end()) {
        one.waitsUntil = state->waitsUntil;
        one.lastStatus = state->lastStatus;
        one.lastError = state->lastError;
      }
      result.endpoints.push_back(std::move(one));
    }
    return result;
  });
}

void Reporter::Core::Forget() {
  Translated([&] {
    RequireOwn();
    const CallGate::Pass pass(gate_);
    if (!pass) ThrowClosed();
    const std::lock_guard lock(forgetMutex_);
    // What is in memory must move into the store first, to be removed with the rest, and must not be sent,
    // nor what a cycle has already read.
    const Forgetting nothingIsSent(*this);
    const TimePoint last = After(std::chrono::seconds(20));
    const auto end = [&] { return gate_.IsShut() ? TimePoint::min() : last; };
    if (!flusher_->WaitForCycle(end) || !flusher_->Drain(end)) {
      if (gate_.IsShut()) ThrowClosed();
      throw ReporterError(zel::eOperationTimeout, "forget: a send cycle doesn't end; try again");
    }
    kit_->Queues().Forget();
  });
}

}  // namespace veld_report
