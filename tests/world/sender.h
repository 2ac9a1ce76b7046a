// The module's one sender of a world, by its three interfaces: every call of it is recorded, with what the
// model has to know of its arguments.
//
// Life: none -> created -> constructed, or not -> none again, with Release. Threads: those of a world, in
// turns.
#pragma once

#include "contract/sender.h"
#include "contract/timer.h"
#include "tests/world/host.h"
#include "tests/world/model.h"

namespace veld_report::world {

class Sender {
 public:
  Sender(Host& host, Model& model) : host_(host), model_(model) {}
  bool Exists() const { return static_cast<bool>(sender_); }

  // Leaves none, if memory runs out. Nothing of it is recorded.
  void Create();
  void Construct(const Settings& settings);
  // `consumer`: 0 for none, 1 and 2 for those of rows, 3 for one that no row has. `size`: bytes of the JSON.
  void Submit(int consumer, int size);
  void SetSettings(const Settings& settings);
  void Run(zel::IRunnable* sink);
  // Gives up all references.
  void Release();

 private:
  template <class Operation>
  void Perform(Entry entry, Operation&& operation);

  Host& host_;
  Model& model_;
  zel::Ref<orvel::veld_report::IVeldReportSender> sender_;
  zel::Ref<orvel::veld_report::IVeldReportSenderConstruct> construct_;
  zel::Ref<orvel::veld_report::IVeldReportSenderSettings> settings_;
  std::uint64_t submitted_ = 0;
};

}  // namespace veld_report::world
