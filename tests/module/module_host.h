// The built module, and a host for it in memory: services of the host kit, queues of the example's host and a
// client that answers by itself.
#pragma once

#include <memory>
#include <string_view>

#include "contract/exports.h"
#include "contract/sender.h"
#include "examples/own_host/memory_queues.h"
#include "host/services/execution_mode.h"
#include "host/services/service_locator.h"
#include "host/services/timer_service.h"
#include "tests/module/answering_client.h"

namespace veld_report::tests {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;

// The library by its two exports. Stays loaded unless it is closed.
struct ModuleLibrary {
  ModuleLibrary();
  void* handle;
  orvel::veld_report::GetObjectFactoryFunction* getObjectFactory;
  orvel::veld_report::CanUnloadModuleFunction* canUnload;
};

struct ModuleHost {
  explicit ModuleHost(std::vector<Answer> answers = {});

  const zel::Ref<host::ServiceLocator> locator = host::MakeObject<host::ServiceLocator>();
  const zel::Ref<own_host::MemoryQueues> queues = own_host::Make<own_host::MemoryQueues>();
  const zel::Ref<host::ExecutionMode> mode = host::MakeObject<host::ExecutionMode>();
  const zel::Ref<AnsweringClient> client;
};

orvel::veld_report::SenderSettings MakeSettings(std::initializer_list<std::u16string_view> urls,
                                                std::uint32_t packetLimit);

// A sender by its three interfaces, whose last reference ends it.
struct Sender {
  zel::Ref<IVeldReportSender> sender;
  zel::Ref<IVeldReportSenderConstruct> construct;
  zel::Ref<IVeldReportSenderSettings> settings;

  zel::ResultCode Create(const ModuleLibrary& module, zel::IServiceLocator* locator);
  // Submits a record with this text.
  zel::ResultCode Send(std::string_view text);
};

}  // namespace veld_report::tests
