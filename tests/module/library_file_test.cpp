// The built file: what it exports and needs.

#include <gmock/gmock.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace veld_report::tests {
namespace {

std::istringstream OutputOf(const std::string& command) {
  std::FILE* pipe = popen((command + " '" VELD_MODULE_FILE "'").c_str(), "r");
  std::string text;
  for (int next; pipe && (next = std::fgetc(pipe)) != EOF;) text.push_back(static_cast<char>(next));
  EXPECT_TRUE(pipe && pclose(pipe) == 0) << command;
  return std::istringstream(text);
}

TEST(LibraryFileTest, ExportsTheTwoFunctionsAndNothingElse) {
  std::istringstream lines = OutputOf("nm -D --defined-only");
  std::vector<std::string> names;
  std::string address, kind, name;
  while (lines >> address >> kind >> name) names.push_back(kind + " " + name);
  EXPECT_THAT(names, testing::UnorderedElementsAre("T zelCanUnloadModule", "T zelGetObjectFactory"));
}

TEST(LibraryFileTest, NeedsTheRuntimeAndNothingElse) {
  std::istringstream lines = OutputOf("readelf -dW");
  int needed = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    ++needed;
    EXPECT_THAT(line, testing::ContainsRegex("\\[(lib(stdc\\+\\+|m|gcc_s|c|asan|ubsan|tsan)\\.so|ld-linux)"));
  }
  EXPECT_GT(needed, 0);
}

}  // namespace
}  // namespace veld_report::tests
