// The built file: what it exports and needs, and that it can be loaded and unloaded without a trace.

#include <array>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

std::string OutputOf(const std::string& command) {
  std::FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {};
  std::string text;
  std::array<char, 4096> piece;
  std::size_t count;
  while ((count = std::fread(piece.data(), 1, piece.size(), pipe)) > 0) text.append(piece.data(), count);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return text;
}

std::size_t Entries(const char* folder) {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

TEST(LibraryFileTest, ExportsTheTwoFunctionsAndNothingElse) {
  std::istringstream lines(OutputOf("nm -D --defined-only '" VELD_MODULE_FILE "'"));
  Strings names;
  std::string address, kind, name;
  while (lines >> address >> kind >> name) names.push_back(kind + " " + name);
  EXPECT_THAT(names, testing::UnorderedElementsAre("T zelCanUnloadModule", "T zelGetObjectFactory"));
}

TEST(LibraryFileTest, NeedsTheRuntimeAndNothingElse) {
  std::istringstream lines(OutputOf("readelf -dW '" VELD_MODULE_FILE "'"));
  const Strings allowed = {"libstdc++.so", "libm.so",    "libgcc_s.so", "libc.so",
                           "ld-linux",     "libasan.so", "libubsan.so", "libtsan.so"};
  int needed = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    ++needed;
    const std::string name = line.substr(line.find('[') + 1);
    EXPECT_TRUE(std::any_of(allowed.begin(), allowed.end(), [&](const std::string& prefix) {
      return name.starts_with(prefix);
    })) << line;
  }
  EXPECT_GT(needed, 0);
}

TEST(LibraryFileTest, LoadsQuietlyAndUnloadsAfterWork) {
  const std::size_t threads = Entries("/proc/self/task");
  const std::size_t files = Entries("/proc/self/fd");
  const ModuleLibrary library = ModuleLibrary::Load();
  EXPECT_EQ(Entries("/proc/self/task"), threads);
  EXPECT_EQ(Entries("/proc/self/fd"), files);
  ASSERT_TRUE(library.getObjectFactory && library.canUnload);
  EXPECT_EQ(library.canUnload(), zel::sOk);
  {
    fakes::FakeHost host;
    zel::Ref<zel::IObject> first;
    ASSERT_EQ(library.getObjectFactory(nullptr, orvel::veld_report::senderClassId, first.Out()), 0);
    zel::Ref<IVeldReportSender> sender;
    auto* factory = static_cast<zel::IObjectFactory*>(first.Get());
    ASSERT_EQ(factory->CreateInstance(host.locator.Get(), 0, sender.OutVoid()), 0);
    zel::Ref<IVeldReportSenderConstruct> construct;
    ASSERT_EQ(sender->QueryInterface(IVeldReportSenderConstruct::iid, construct.OutVoid()), 0);
    ASSERT_EQ(construct->Construct(MakeSettings({})), 0);
    fakes::TextRecord record;
    EXPECT_EQ(sender->SendStatistic(zel::AnyPtr(&record, &fakes::textRecordDescriptor)), 0);
    EXPECT_TRUE(host.timer->Fire());
    EXPECT_EQ(host.http->TakeSent().size(), 1u);
    EXPECT_EQ(library.canUnload(), zel::sFalse);
  }
  EXPECT_EQ(library.canUnload(), zel::sOk);
  EXPECT_EQ(dlclose(library.handle), 0);
  EXPECT_EQ(dlopen(VELD_MODULE_FILE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
}

}  // namespace
}  // namespace veld_report::tests
