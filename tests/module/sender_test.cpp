#include "tests/module/sender_test.h"

#include <cstdio>

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

std::string Line(std::string_view text) { return "700 veld_rep\t" + std::string(text); }

std::string NotAllLine(std::uint32_t needToSend, std::uint32_t sent) {
  return Line("Not all data were sent. NeedToSend size = " + std::to_string(needToSend) +
              ". Sended size = " + std::to_string(sent));
}

std::string CaughtLine(std::string_view function, std::string_view rest) {
  return "300 veld_rep\t\torvel::veld_report::VeldReportSenderImpl::" + std::string(function) + "() " +
         std::string(rest);
}

std::string SystemError(std::string_view text, ResultCode code, std::string_view place) {
  std::string where(place);
  if (where.find('(') == std::string::npos) {
    where = "facade/veld_report/src/veld_report_sender(" + where + ")";
  }
  const char* meaning = code == someCode                 ? "Access denied"
                        : code == zel::eInvalidArgument  ? "Invalid argument"
                        : code == zel::eUnspecifiedError ? "Unspecified error"
                        : code == zel::eOutOfMemory      ? "Out of memory"
                                                         : "?";
  char number[16];
  std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(code));
  return "SystemException - " + std::string(text) + ": " + number + " (" + meaning + "). At " + where + " ";
}

SenderTest::~SenderTest() {
  End();
  host.http->JoinThreads();
  EXPECT_EQ(module.canUnload(), zel::sOk) << "objects of the module are left";
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

ResultCode SenderTest::Construct(const Plan& plan) {
  if (!sender) {
    if (const ResultCode code = Create()) return code;
  }
  return construct->Construct(MakeSettings(plan));
}

void SenderTest::Start(const Plan& plan, bool firstCycle) {
  ASSERT_EQ(Construct(plan), zel::sOk);
  if (firstCycle) Cycle();
  Events();
  Lines();
  host.locator->TakeLookUps();
}

void SenderTest::Cycle() {
  TriggerCycle();
  Events();
  Lines();
  Fire();
}

void SenderTest::End() {
  Sender::End();
  host.timer->ForgetCancelled();
}

void SenderTest::EndRow() {
  End();
  script().Clear();
  host.queues->Clear();
}

Strings SenderTest::FailureLines() {
  Strings lines = Lines();
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("700"); });
  return lines;
}

void SenderTest::PutItems(char queue, const Strings& items) {
  for (const std::string& item : items) host.queues->Put(QueueName(queue), item);
}

}  // namespace veld_report::tests
