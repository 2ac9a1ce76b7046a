// The built module, and a sender of it.
#pragma once

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "contract/exports.h"
#include "contract/sender.h"
#include "tests/fakes/fake_host.h"

namespace veld_report::tests {

using fakes::HttpAnswer;
using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;
using zel::ResultCode;
using Strings = std::vector<std::string>;

// The urls of most tests; the hash gives them queue names that sort as the urls do.
inline constexpr char16_t urlA[] = u"http://a";
inline constexpr char16_t urlB[] = u"http://b";
inline constexpr char16_t urlC[] = u"http://c";
std::string QueueName(char letter);  // of one of these: 'a' has "0a0a...", 32 characters

// Settings in a form that is easy to write down.
struct Plan {
  std::vector<std::u16string> urls{urlA};
  std::vector<std::string> consumers{};
  std::uint32_t packetLimit = 2;
  std::uint32_t queueLimit = 10;
  std::uint32_t sendTimeout = 7;
};
// Row i of the certificates is (certificateBytes + i, certificateBytes + i + 1).
extern const char certificateBytes[16];
SenderSettings MakeSettings(const Plan& plan);

// The built module, loaded once a test program, by its two exports.
struct ModuleLibrary {
  void* handle = nullptr;
  orvel::veld_report::GetObjectFactoryFunction* getObjectFactory = nullptr;
  orvel::veld_report::CanUnloadModuleFunction* canUnload = nullptr;

  static ModuleLibrary Load() {
    ModuleLibrary library;
    library.handle = dlopen(VELD_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
    if (!library.handle) {
      ADD_FAILURE() << dlerror();
      std::abort();
    }
    library.getObjectFactory = reinterpret_cast<orvel::veld_report::GetObjectFactoryFunction*>(
        dlsym(library.handle, orvel::veld_report::getObjectFactoryName));
    library.canUnload = reinterpret_cast<orvel::veld_report::CanUnloadModuleFunction*>(
        dlsym(library.handle, orvel::veld_report::canUnloadModuleName));
    return library;
  }
  // Stays loaded to the end of the program.
  static const ModuleLibrary& Get() {
    static const ModuleLibrary library = Load();
    return library;
  }
};

// A sender by all three interfaces, whose last reference ends it.
struct Sender {
  zel::Ref<IVeldReportSender> sender;
  zel::Ref<IVeldReportSenderConstruct> construct;
  zel::Ref<IVeldReportSenderSettings> settings;

  ResultCode Create(const ModuleLibrary& module, zel::IServiceLocator* locator);
  // Submits a record whose JSON is exactly `json`.
  ResultCode Send(std::string_view json, std::string_view consumer = {});
  void End();
};

}  // namespace veld_report::tests
