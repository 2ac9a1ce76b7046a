#include "host/kit/module_sender.h"

#include <stdexcept>
#include <string>

#include "host/base/text.h"
#include "host/json/json_record.h"
#include "host/kit/settings_builder.h"
#include "veld_report/code_text.h"

namespace veld_report::host {
namespace {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;

void Require(zel::ResultCode code, const char* what) {
  if (zel::Failed(code)) throw std::runtime_error(std::string(what) + ": " + CodeText(code));
}

}  // namespace

ModuleSender::ModuleSender(LoadedModule& module, zel::IServiceLocator& locator,
                           const orvel::veld_report::SenderSettings& settings) {
  const auto factory = module.MakeFactory(&locator);
  Require(factory->CreateInstance(&locator, IVeldReportSender::iid, sender_.OutVoid()),
          "module: the sender can't be created");
  zel::Ref<IVeldReportSenderConstruct> construct;
  Require(sender_->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()),
          "module: the sender can't be constructed");
  Require(sender_->QueryInterface(IVeldReportSenderSettings::iid, settings_.OutVoid()),
          "module: the sender takes no settings");
  Require(construct->Construct(settings), "module: the sender refuses its services or settings");
}

Submission ModuleSender::Submit(std::string_view consumer, const zel::AnyPtr& record,
                                std::uint64_t limitBytes) {
  const zel::string name = ToNarrow(consumer);
  SubmissionWatch watch(limitBytes);
  const zel::ResultCode code = sender_->SendStatistic(name, record);
  if (zel::Failed(code)) return {code};
  return watch.Take();
}

void ModuleSender::Trigger() {
  JsonRecord nothing{"{}"};
  Submit(triggerConsumer, nothing.AsAny());
}

void ModuleSender::SetSettings(const orvel::veld_report::SenderSettings& settings) {
  Require(settings_->SetSettings(settings), "settings: the sender refuses them");
}

}  // namespace veld_report::host
