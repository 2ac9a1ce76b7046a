#include "tests/module/sender_test.h"

namespace veld_report::tests {

const char certificateBytes[16] = {};

std::string QueueName(char letter) {
  std::string name;
  for (int i = 0; i < 16; ++i) name += {'0', letter};
  return name;
}

SenderSettings MakeSettings(const Plan& plan) {
  SenderSettings settings;
  const char* certificate = certificateBytes;
  for (const std::u16string& url : plan.urls) {
    orvel::veld_report::UrlEntry entry;
    entry.url = zel::wstring(std::u16string_view(url));
    entry.certificates.first = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(certificate);
    entry.certificates.last = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(++certificate);
    settings.urls.push_back(entry);
  }
  for (const std::string& consumer : plan.consumers) {
    settings.consumers.push_back(zel::string(std::string_view(consumer)));
  }
  settings.packetLimit = plan.packetLimit;
  settings.queueLimit = plan.queueLimit;
  settings.sendTimeout = plan.sendTimeout;
  return settings;
}

ResultCode Sender::Create(const ModuleLibrary& module, zel::IServiceLocator* locator) {
  zel::Ref<zel::IObject> first;
  ResultCode code = module.getObjectFactory(locator, orvel::veld_report::senderClassId, first.Out());
  if (code != zel::sOk) return code;
  auto* factory = static_cast<zel::IObjectFactory*>(first.Get());
  code = factory->CreateInstance(locator, IVeldReportSender::iid, sender.OutVoid());
  if (code != zel::sOk) return code;
  EXPECT_EQ(sender->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()), 0);
  EXPECT_EQ(sender->QueryInterface(IVeldReportSenderSettings::iid, settings.OutVoid()), 0);
  return code;
}

ResultCode Sender::Send(std::string_view json, std::string_view consumer) {
  fakes::TextRecord record{zel::string(json)};
  return sender->SendStatistic(zel::string(consumer), zel::AnyPtr(&record, &fakes::rawRecordDescriptor));
}

void Sender::End() {
  settings.Reset();
  construct.Reset();
  sender.Reset();
}

}  // namespace veld_report::tests
