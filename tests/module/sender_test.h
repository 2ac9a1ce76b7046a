// SenderTest, the fixture of the module's tests: a fake host, the built module and one sender.
//
// When a test ends, the last reference goes, and the test fails unless everything is back where it was: each
// service held by the host alone, no block and no trace line out, and the module ready to be unloaded.
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
using fakes::Script;
using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;
using orvel::veld_report::IVeldReportSenderSettings;
using orvel::veld_report::SenderSettings;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
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

// A trace line of the module's, with its level and tag.
std::string Line(std::string_view text);
// The line that ends a cycle after which items are left.
std::string NotAllLine(std::uint32_t needToSend, std::uint32_t sent);
inline constexpr char noMore[] = "Threre are no more data to send. Timer for sending was cancelled";
// The line of a caught exception that the sender's operation `function` reports.
std::string CaughtLine(std::string_view function, std::string_view rest);
// `rest` of such a line for a SystemException. `place`: as "orvel_tools/json_helpers(27)"; a line number
// alone stands for the sender's own source.
std::string SystemError(std::string_view text, ResultCode code, std::string_view place);
inline constexpr ResultCode someCode = zel::MakeResultCode(0x80000045);  // "Access denied"

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

class SenderTest : public testing::Test, protected Sender {
 protected:
  ~SenderTest() override;

  ResultCode Create() { return Sender::Create(module, host.locator.Get()); }
  ResultCode Construct(const Plan& plan);  // creates it first if there is none
  // A constructed sender, with log and trace cleared. `firstCycle`: and one cycle behind it.
  void Start(const Plan& plan = {}, bool firstCycle = false);
  ResultCode Set(const Plan& plan) { return settings->SetSettings(MakeSettings(plan)); }
  // Submits a record to a consumer that no row has: it arms the timer and is dropped by the cycle.
  void TriggerCycle() { EXPECT_EQ(Send("{}", "nobody"), zel::sOk); }
  void Fire() { ASSERT_TRUE(host.timer->Fire()) << "no timer is armed"; }
  // TriggerCycle and Fire, with the log cleared between.
  void Cycle();
  void End();
  // Ends it and forgets all scripts and queues, for the next row of a table.
  void EndRow();
  void PutItems(char queue, const Strings& items);

  Strings Events() { return host.world.log.Take(); }
  Strings Events(const Strings& prefixes) { return host.world.log.TakeOnly(prefixes); }
  Strings Lines() { return host.tracer->TakeLines(); }
  Strings FailureLines();  // those of level 300
  Script& script() { return host.world.script; }

  const ModuleLibrary& module = ModuleLibrary::Get();
  fakes::FakeHost host;
};

}  // namespace veld_report::tests
