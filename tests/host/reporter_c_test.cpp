// The C interface, from a program in C.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

class CInterface : public ReporterTest {};

TEST_F(CInterface, ProgramGoesThroughEveryFunction) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  const auto run = tests::RunProgram({VELD_C_PROGRAM, VELD_MODULE_PATH, Path("c"), server.Url()});
  EXPECT_EQ(run.exitCode, 0) << run.errors;
  ASSERT_EQ(server.Requests().size(), 2u);
  for (const tests::ScriptedRequest& request : server.Requests()) {
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nX-Product: C\r\n"));
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nUser-Agent: reporter_c_program\r\n"));
    // {"array":[{"from":"C","text":"gr\u00fc\u00df"}]}
    EXPECT_THAT(request.body,
                testing::HasSubstr("\"eyJhcnJheSI6W3siZnJvbSI6IkMiLCJ0ZXh0IjoiZ3JcdTAwZmNcdTAwZGYifV19\""));
  }
}

TEST_F(CInterface, PythonLoadsTheLibrary) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "python3 is built without the sanitizer that the library needs";
#endif
  const auto server = Serve("out");
  const tests::ProgramResult python = tests::RunProgram(
      {"python3", VELD_PYTHON_PROGRAM, VELD_C_LIBRARY, VELD_MODULE_PATH, Path("py"), server->Url()});
  EXPECT_EQ(python.exitCode, 0) << python.errors;
  EXPECT_THAT(Stored("out"), testing::Contains("{\"from\":\"python\",\"text\":\"gr\xc3\xbc\xc3\x9f\"}"));
}

}  // namespace
}  // namespace veld_report
