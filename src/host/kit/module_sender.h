// ModuleSender: one sender of the loaded module, created, constructed and held by its interfaces.
#pragma once

#include <cstdint>
#include <string_view>

#include "contract/sender.h"
#include "host/kit/submission_watch.h"
#include "host/services/loaded_module.h"

namespace veld_report::host {

// Threads: any, for all operations except the destructor, which is the sender's last Release: it ends a cycle
// in progress and moves what is in memory into the queues.
class ModuleSender {
 public:
  // Throws std::runtime_error that says what the module refuses.
  ModuleSender(LoadedModule& module, zel::IServiceLocator& locator,
               const orvel::veld_report::SenderSettings& settings);

  // Refuses a record whose text is longer than `limitBytes`.
  Submission Submit(std::string_view consumer, const zel::AnyPtr& record,
                    std::uint64_t limitBytes = UINT64_MAX);
  // Submits what no endpoint takes, so that a cycle starts within a second.
  void Trigger();
  // Throws std::runtime_error.
  void SetSettings(const orvel::veld_report::SenderSettings& settings);

 private:
  zel::Ref<orvel::veld_report::IVeldReportSender> sender_;
  zel::Ref<orvel::veld_report::IVeldReportSenderSettings> settings_;
};

}  // namespace veld_report::host
