#include "veld_report/reporter.h"

#include <utility>

#include "host/reporter/reporter_core.h"

namespace veld_report {

const char* Version() noexcept { return VELD_REPORT_VERSION; }

Reporter::Reporter(ReporterOptions options) : core_(std::make_shared<Core>(std::move(options))) {}

std::unique_ptr<Reporter> Reporter::TryOpen(ReporterOptions options, std::string* error) noexcept {
  try {
    return std::make_unique<Reporter>(std::move(options));
  } catch (const std::exception& caught) {
    try {
      if (error) *error = caught.what();
    } catch (...) {
      // No memory for the sentence; null says enough.
    }
  }
  return nullptr;
}

Reporter::~Reporter() {
  if (core_->IsInherited()) {
    Core::Abandon(std::move(core_));
  } else {
    core_->CloseUnlessBegun();
  }
}

void Reporter::SendRecord(const zel::AnyPtr& record, std::string_view consumer) {
  std::string error;
  const zel::ResultCode code = TrySendRecord(record, consumer, &error);
  if (zel::Failed(code)) throw ReporterError(code, error);
}

zel::ResultCode Reporter::TrySendRecord(const zel::AnyPtr& record, std::string_view consumer,
                                        std::string* error) noexcept {
  return core_->Submit(&record, {}, consumer, error);
}

void Reporter::Send(const RecordBuilder& record, std::string_view consumer) {
  SendJson(record.Text(), consumer);
}

void Reporter::SendJson(std::string_view json, std::string_view consumer) {
  std::string error;
  const zel::ResultCode code = TrySendJson(json, consumer, &error);
  if (zel::Failed(code)) throw ReporterError(code, error);
}

zel::ResultCode Reporter::TrySend(const RecordBuilder& record, std::string_view consumer) noexcept {
  try {
    return TrySendJson(record.Text(), consumer);
  } catch (...) {
    return zel::eOutOfMemory;
  }
}

zel::ResultCode Reporter::TrySendJson(std::string_view json, std::string_view consumer,
                                      std::string* error) noexcept {
  return core_->Submit(nullptr, json, consumer, error);
}

bool Reporter::Flush(std::chrono::milliseconds deadline) noexcept { return core_->Flush(deadline); }

bool Reporter::FlushToStore(std::chrono::milliseconds deadline) noexcept {
  return core_->FlushToStore(deadline);
}

bool Reporter::Close(std::chrono::milliseconds deadline) noexcept { return core_->Close(deadline); }

bool Reporter::IsClosed() const noexcept { return core_->IsClosed(); }

void Reporter::SetSettings(const Settings& settings) { core_->SetSettings(settings); }

zel::ResultCode Reporter::TrySetSettings(const Settings& settings, std::string* error) noexcept {
  try {
    core_->SetSettings(settings);
    return zel::sOk;
  } catch (const ReporterError& caught) {
    try {
      if (error) *error = caught.what();
    } catch (...) {
      // No memory for the sentence; the code says enough.
    }
    return caught.Code();
  } catch (...) {
    return zel::eOutOfMemory;
  }
}

Settings Reporter::CurrentSettings() const { return core_->CurrentSettings(); }

void Reporter::SetListener(Listener listener) { core_->SetListener(std::move(listener)); }

void Reporter::SetLossListener(LossListener listener) { core_->SetLossListener(std::move(listener)); }

void Reporter::AllowSending(bool allowed) noexcept { core_->AllowSending(allowed); }

Statistics Reporter::Stats() { return core_->Stats(); }

void Reporter::Forget() { core_->Forget(); }

}  // namespace veld_report
