#include "tests/module/module_host.h"

#include <dlfcn.h>

#include <cstdlib>

#include "gtest/gtest.h"
#include "host/json/json_storage.h"
#include "host/json/serializer.h"
#include "host/services/function_notification.h"
#include "host/services/hash_service.h"
#include "host/services/heap_allocator.h"
#include "host/services/line_tracer.h"

namespace veld_report::tests {
namespace {

struct Note {
  zel::string text;
};
constexpr zel::SerFieldDescriptor noteFields[] = {
    {.typeId = zel::SerFieldDescriptor::narrowString, .name = "text", .size = sizeof(zel::string)},
    {.flags = zel::SerFieldDescriptor::endOfTable}};
const zel::SerObjDescriptor noteDescriptor{
    .serId = 42, .name = "Note", .size = sizeof(Note), .fields = noteFields};

}  // namespace

ModuleLibrary::ModuleLibrary() : handle(dlopen(VELD_MODULE_FILE, RTLD_NOW | RTLD_LOCAL)) {
  using namespace orvel::veld_report;
  if (!handle) {
    ADD_FAILURE() << dlerror();
    std::abort();
  }
  getObjectFactory = reinterpret_cast<GetObjectFactoryFunction*>(dlsym(handle, getObjectFactoryName));
  canUnload = reinterpret_cast<CanUnloadModuleFunction*>(dlsym(handle, canUnloadModuleName));
}

ModuleHost::ModuleHost(std::vector<Answer> answers)
    : client(host::MakeObject<AnsweringClient>(std::move(answers))) {
  using host::MakeObject;
  const auto ignoreLine = [](std::string_view) {};
  const auto ignoreRequest = [](const host::FinishedRequest&) {};
  const host::LineTracerOptions all{.level = 700, .sink = ignoreLine};
  locator->Register<zel::IAllocator>(MakeObject<host::HeapAllocator>());
  locator->Register<zel::ITracer>(MakeObject<host::LineTracer>(all));
  locator->Register<crypto::hash::IHashCalculatorFactory>(MakeObject<host::HashService>());
  locator->Register<orvel::IQueueFactory>(queues);
  locator->Register<network_services::IHttpClientFactory>(client);
  locator->Register<orvel::IExecutionModeProvider>(mode);
  locator->Register<orvel::IRequestsNotification>(MakeObject<host::FunctionNotification>(ignoreRequest));
  locator->Register<zel::IJsonStorageFactory>(host::CreateJsonStorageFactory());
  locator->Register<zel::IStorageSerializer2>(host::CreateSerializer());
}

orvel::veld_report::SenderSettings MakeSettings(std::initializer_list<std::u16string_view> urls,
                                                std::uint32_t packetLimit) {
  orvel::veld_report::SenderSettings settings;
  for (const std::u16string_view url : urls) {
    orvel::veld_report::UrlEntry entry;
    entry.url = zel::wstring(url);
    settings.urls.push_back(entry);
  }
  settings.packetLimit = packetLimit;
  settings.queueLimit = 1000;
  settings.sendTimeout = 2;
  return settings;
}

zel::ResultCode Sender::Create(const ModuleLibrary& module, zel::IServiceLocator* locator) {
  zel::Ref<zel::IObject> first;
  auto code = module.getObjectFactory(locator, orvel::veld_report::senderClassId, first.Out());
  if (code != zel::sOk) return code;
  auto* factory = static_cast<zel::IObjectFactory*>(first.Get());
  code = factory->CreateInstance(locator, IVeldReportSender::iid, sender.OutVoid());
  if (code != zel::sOk) return code;
  EXPECT_EQ(sender->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()), zel::sOk);
  EXPECT_EQ(sender->QueryInterface(IVeldReportSenderSettings::iid, settings.OutVoid()), zel::sOk);
  return code;
}

zel::ResultCode Sender::Send(std::string_view text) {
  Note note{zel::string(text)};
  return sender->SendStatistic(zel::AnyPtr(&note, &noteDescriptor));
}

}  // namespace veld_report::tests
