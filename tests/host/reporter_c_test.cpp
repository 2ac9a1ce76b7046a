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

}  // namespace
}  // namespace veld_report
