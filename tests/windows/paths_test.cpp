// The path that reaches the system: Wine takes long paths without a prefix, so no other test would miss it.
#include "host/platform/paths.h"

#include "gtest/gtest.h"

namespace veld_report::host {
namespace {

TEST(Paths, ReachTheSystemFromTheirRootWithAPrefix) {
  const std::string here = Utf8(std::filesystem::current_path());
  const std::string name(300, 'n');
  const struct {
    std::string given, system, shown;
  } cases[] = {
      {"a/../dä😀", R"(\\?\)" + here + R"(\dä😀)", here + R"(\dä😀)"},
      {name, R"(\\?\)" + here + "\\" + name, here + "\\" + name},
      {"C:/a//b/./../c", R"(\\?\C:\a\c)", R"(C:\a\c)"},
      {R"(C:\a\..\b)", R"(\\?\C:\b)", R"(C:\b)"},
      {here.substr(0, 2) + "rel", R"(\\?\)" + here + R"(\rel)", here + R"(\rel)"},
      {R"(\root)", R"(\\?\)" + here.substr(0, 2) + R"(\root)", here.substr(0, 2) + R"(\root)"},
      {"//server/share/x/../y", R"(\\?\UNC\server\share\y)", R"(\\server\share\y)"},
      {R"(\\?\C:\x\..)", R"(\\?\C:\x\..)", R"(C:\x\..)"},
      {R"(\\?\UNC\server\share\x)", R"(\\?\UNC\server\share\x)", R"(\\server\share\x)"},
      {"NUL", R"(\\.\NUL)", R"(\\.\NUL)"},
      {"", "", ""},
  };
  for (const auto& each : cases) {
    const std::string system = Utf8(SystemPath(FromUtf8(each.given)));
    EXPECT_EQ(system, each.system) << each.given;
    EXPECT_EQ(WithoutPrefix(system), each.shown) << each.given;
    EXPECT_EQ(SystemPath(AbsolutePath(FromUtf8(each.given))), FromUtf8(each.system)) << each.given;
  }
}

}  // namespace
}  // namespace veld_report::host
