#include "tests/world/sender.h"

#include <algorithm>

#include "contract/exports.h"
#include "tests/world/client.h"
#include "tests/world/services.h"

extern "C" orvel::veld_report::GetObjectFactoryFunction zelGetObjectFactory;

namespace veld_report::world {
namespace {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;

constexpr const char* consumerNames[] = {"", "x", "y", "nobody"};

SenderSettings ForModule(const Settings& settings) {
  SenderSettings made;
  made.packetLimit = settings.packetLimit;
  made.queueLimit = settings.queueLimitKb;
  made.sendTimeout = settings.sendTimeoutS;
  const bool named = settings.HasConsumers();
  const char* certificate = certificates;
  for (const Row& row : settings.rows) {
    orvel::veld_report::UrlEntry entry;
    entry.url = zel::wstring(std::u16string_view(Url(row.url)));
    entry.certificates.first = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(certificate);
    entry.certificates.last = reinterpret_cast<const orvel::veld_report::OpaqueCertificate*>(++certificate);
    made.urls.push_back(entry);
    if (named) made.consumers.push_back(zel::string(std::string_view(consumerNames[row.consumer])));
  }
  if (settings.mismatch) made.consumers.push_back(zel::string());
  return made;
}

}  // namespace

template <class Operation>
void Sender::Perform(Entry entry, Operation&& operation) {
  host_.Append({.op = Op::enter, .a = static_cast<std::uint64_t>(entry)});
  Record end{.op = Op::returned, .a = static_cast<std::uint64_t>(entry)};
  try {
    const Inside inside;
    end.result = operation();
  } catch (...) {
    end.threw = true;
  }
  host_.Append(end);
}

void Sender::Create() {
  zel::Ref<zel::IObject> first;
  zel::IServiceLocator* locator = host_.locator;
  Perform(Entry::create, [&] {
    const auto code = zelGetObjectFactory(locator, orvel::veld_report::senderClassId, first.Out());
    if (code != 0) return code;
    auto* factory = static_cast<zel::IObjectFactory*>(first.Get());
    return factory->CreateInstance(locator, IVeldReportSender::iid, sender_.OutVoid());
  });
  const Inside inside;
  first.Reset();
  const bool excused = std::any_of(host_.recording.begin(), host_.recording.end(),
                                   [](const Record& record) { return record.op == Op::excuse; });
  if (!sender_ && !excused) host_.Fail(invariant::calls, "no sender is made");
  host_.recording.clear();
  if (!sender_) return;
  sender_->QueryInterface(IVeldReportSenderConstruct::iid, construct_.OutVoid());
  sender_->QueryInterface(IVeldReportSenderSettings::iid, settings_.OutVoid());
}

void Sender::Construct(const Settings& settings) {
  const SenderSettings given = ForModule(settings);
  host_.settings = &settings;
  model_.Expect(settings);
  Perform(Entry::construct, [&] { return construct_->Construct(given); });
}

void Sender::Submit(int consumer, int size) {
  std::string json = "{\"n\":" + std::to_string(++submitted_) + ",\"p\":\"";
  json.append(static_cast<std::size_t>(size), static_cast<char>('a' + submitted_ % 26));
  json.resize(static_cast<std::size_t>(size));
  model_.Expect(consumer, Print(json), json.size());
  TextRecord record{zel::string(std::string_view(json))};
  const zel::string name{std::string_view(consumerNames[consumer])};
  const zel::AnyPtr data(&record, &textRecord);
  Perform(Entry::submit,
          [&] { return consumer == 0 ? sender_->SendStatistic(data) : sender_->SendStatistic(name, data); });
}

void Sender::SetSettings(const Settings& settings) {
  const SenderSettings given = ForModule(settings);
  const Settings* outer = std::exchange(host_.settings, &settings);
  model_.Expect(settings);
  Perform(Entry::settings, [&] { return settings_->SetSettings(given); });
  host_.settings = outer;
}

void Sender::Release() {
  const Inside inside;
  construct_.Reset();
  settings_.Reset();
  zel::Ref<IVeldReportSender> last = std::move(sender_);
  Perform(Entry::release, [&] {
    last.Reset();
    return zel::sOk;
  });
}

void Sender::Run(zel::IRunnable* sink) {
  Perform(Entry::run, [&] { return sink->Run(nullptr); });
}

}  // namespace veld_report::world
