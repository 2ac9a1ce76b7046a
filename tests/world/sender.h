// The module's one sender of a world, by its three interfaces: every call of it is recorded, with what the
// model has to know of its arguments.
//
// Life: none -> created -> constructed, or not -> none again, with Release. Threads: those of a world, in
// turns.
#pragma once

#include <algorithm>
#include <string>
#include <utility>

#include "contract/exports.h"
#include "contract/sender.h"
#include "contract/timer.h"
#include "tests/world/client.h"
#include "tests/world/host.h"
#include "tests/world/model.h"
#include "tests/world/services.h"

extern "C" orvel::veld_report::GetObjectFactoryFunction zelGetObjectFactory;

namespace veld_report::world {

class Sender {
  using Interface = orvel::veld_report::IVeldReportSender;
  using Construction = orvel::veld_report::IVeldReportSenderConstruct;
  using Changes = orvel::veld_report::IVeldReportSenderSettings;

 public:
  Sender(Host& host, Model& model) : host_(host), model_(model) {}
  bool Exists() const { return static_cast<bool>(sender_); }

  // Leaves none, if memory runs out. Nothing of it is recorded.
  void Create() {
    zel::Ref<zel::IObject> first;
    zel::IServiceLocator* locator = host_.locator;
    Perform(Entry::create, [&] {
      const auto code = zelGetObjectFactory(locator, orvel::veld_report::senderClassId, first.Out());
      if (code != 0) return code;
      auto* factory = static_cast<zel::IObjectFactory*>(first.Get());
      return factory->CreateInstance(locator, Interface::iid, sender_.OutVoid());
    });
    const Inside inside;
    first.Reset();
    const bool excused = std::ranges::count(host_.recording, Op::excuse, &Record::op) != 0;
    if (!sender_ && !excused) host_.Fail(invariant::calls, "no sender is made");
    host_.recording.clear();
    if (!sender_) return;
    sender_->QueryInterface(Construction::iid, construct_.OutVoid());
    sender_->QueryInterface(Changes::iid, settings_.OutVoid());
  }

  void Construct(const Settings& settings) {
    const auto given = ForModule(settings);
    host_.settings = &settings;
    model_.Expect(settings);
    Perform(Entry::construct, [&] { return construct_->Construct(given); });
  }

  // `consumer`: 0 for none, 1 and 2 for those of rows, 3 for one that no row has. `size`: bytes of the JSON.
  void Submit(int consumer, int size) {
    std::string json = "{\"n\":" + std::to_string(++submitted_) + ",\"p\":\"";
    json.append(static_cast<std::size_t>(size), static_cast<char>('a' + submitted_ % 26));
    json.resize(static_cast<std::size_t>(size));
    model_.Expect(consumer, Print(json), json.size());
    TextRecord record{zel::string(std::string_view(json))};
    const zel::string name{std::string_view(consumerNames[consumer])};
    const zel::AnyPtr data(&record, &textRecord);
    Perform(Entry::submit, [&] {
      return consumer == 0 ? sender_->SendStatistic(data) : sender_->SendStatistic(name, data);
    });
  }

  void SetSettings(const Settings& settings) {
    const auto given = ForModule(settings);
    const Settings* outer = std::exchange(host_.settings, &settings);
    model_.Expect(settings);
    Perform(Entry::settings, [&] { return settings_->SetSettings(given); });
    host_.settings = outer;
  }

  void Run(zel::IRunnable* sink) {
    Perform(Entry::run, [&] { return sink->Run(nullptr); });
  }

  // Gives up all references.
  void Release() {
    const Inside inside;
    construct_.Reset();
    settings_.Reset();
    zel::Ref<Interface> last = std::move(sender_);
    Perform(Entry::release, [&] {
      last.Reset();
      return zel::sOk;
    });
  }

 private:
  static constexpr const char* consumerNames[] = {"", "x", "y", "nobody"};

  static orvel::veld_report::SenderSettings ForModule(const Settings& settings) {
    orvel::veld_report::SenderSettings made;
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

  template <class Operation>
  void Perform(Entry entry, Operation&& operation) {
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

  Host& host_;
  Model& model_;
  zel::Ref<Interface> sender_;
  zel::Ref<Construction> construct_;
  zel::Ref<Changes> settings_;
  std::uint64_t submitted_ = 0;
};

}  // namespace veld_report::world
