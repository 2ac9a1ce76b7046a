// The commands that need no sender: the command line itself, keygen, decode and serve.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>

#include "tests/app/veldrep.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

namespace veld_report::app_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tests::Eventually;
using tests::Lines;
using tests::Program;
using tests::ProgramResult;
using tests::ReadFile;
using tests::TemporaryFolder;
using tests::WriteFile;

constexpr const char* exampleBody =
    R"({"payload":"eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19","signatures":[{"protected":"eyJhbGciOiJub25lIn0A"}]})";

TEST(CommandLine, WrongOnesEndWithTwoAndASentence) {
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {},
           {"fly"},
           {"serve"},
           {"serve", "--out", "x", "--listen", "nowhere"},
           {"serve", "--out", "x", "--listen", "127.0.0.1:70000"},
           {"serve", "--out", "x", "--listen", "::1:80"},
           {"serve", "--out", "x", "--status", "99"},
           {"decode", "a", "b"},
           {"keygen"},
           {"queues"},
           {"queues", "--store", "x", "peek"},
           {"queues", "--store", "x", "clear"},
           {"queues", "--store", "x", "clear", "name", "--all"},
           {"store", "--store", "x"},
           {"store", "check"},
       }) {
    const ProgramResult result = Veldrep(arguments);
    EXPECT_EQ(result.exitCode, 2) << testing::PrintToString(arguments);
    EXPECT_THAT(result.errors, StartsWith("veldrep: "));
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(Lines(result.errors).size(), 1U) << result.errors;
  }
}

TEST(CommandLine, EveryCommandHasHelpWithAnExample) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{{"serve"},
                                                                                       {"queues"},
                                                                                       {"queues", "list"},
                                                                                       {"queues", "peek"},
                                                                                       {"queues", "clear"},
                                                                                       {"decode"},
                                                                                       {"keygen"}}) {
    std::vector<std::string> arguments = command;
    arguments.push_back("--help");
    const ProgramResult result = Veldrep(arguments);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("Example: veldrep " + command[0]))
        << testing::PrintToString(command);
  }
}

TEST(Keygen, MakesAPairThatIsNeverOverwritten) {
  const TemporaryFolder folder;
  ASSERT_EQ(Veldrep({"keygen", folder / "k"}).exitCode, 0);
  struct stat status {};
  ASSERT_EQ(stat((folder / "k.key.pem").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const std::string before = ReadFile(folder / "k.key.pem");
  const ProgramResult again = Veldrep({"keygen", folder / "k"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_THAT(again.errors, HasSubstr("k.key.pem: exists already"));
  EXPECT_EQ(ReadFile(folder / "k.key.pem"), before);
}

TEST(Decode, ShowsEachLayerAsFarAsItIsSound) {
  const TemporaryFolder folder;
  ASSERT_EQ(Veldrep({"keygen", folder / "k"}).exitCode, 0);
  WriteFile(folder / "body", exampleBody);
  const std::string signatureTorn = R"({"payload":"eyJhcnJheSI6W119","signatures":[{"protected":"+/8"}]})";
  const struct {
    std::vector<std::string> arguments;
    std::string input;
    int exitCode;
    const char* output;
    const char* errors;
  } cases[] = {
      {{"decode", folder / "body"}, "", 0, "  2: {\"b\":2}\n", ""},
      {{"decode"}, exampleBody, 0, "  header: {\"alg\":\"none\"}\n", ""},
      {{"decode", "-"}, exampleBody, 0, "check: no key given", ""},
      {{"decode", "--key", folder / "k.pub.pem", folder / "body"},
       "",
       1,
       "{\"b\":2}",
       "the message isn't signed"},
      {{"decode"}, signatureTorn, 1, "payload: 12 bytes", "stdin: \"protected\" isn't base-64"},
      {{"decode"}, "nothing", 1, "body: 7 bytes", "stdin: the body isn't a JSON object"},
      {{"decode", folder / "none"}, "", 1, "", "none: can't be opened: No such file"},
      {{"decode", "--key", folder / "none", folder / "body"}, "", 1, "", "none: No such file"},
      {{"decode", "--key", folder / "body", folder / "body"}, "", 1, "", "veldrep: "},
  };
  for (const auto& each : cases) {
    const ProgramResult result = Veldrep(each.arguments, each.input);
    EXPECT_EQ(result.exitCode, each.exitCode) << testing::PrintToString(each.arguments);
    EXPECT_THAT(result.output, HasSubstr(each.output));
    EXPECT_THAT(result.errors, HasSubstr(each.errors));
  }
}

TEST(Serve, EndsInOrderOnBothSignals) {
  const TemporaryFolder folder;
  for (const int signal : {SIGTERM, SIGINT}) {
    Server server(folder / "out.ndjson");
    server.Process().Signal(signal);
    EXPECT_EQ(server.Process().Wait(), 0);
    EXPECT_THAT(server.Process().Output(), HasSubstr("stopped: 0 items stored, 0 requests refused\n"));
  }
}

TEST(Serve, TellsOfATornLastLine) {
  const TemporaryFolder folder;
  WriteFile(folder / "out.ndjson", "{\"a\":1}\n{\"to");
  Server server(folder / "out.ndjson", {"--status", "503"});
  EXPECT_THAT(server.Process().Errors(), HasSubstr("out.ndjson: cut off a torn last line of 4 bytes"));
  EXPECT_EQ(ReadFile(folder / "out.ndjson"), "{\"a\":1}\n");
}

}  // namespace
}  // namespace veld_report::app_test
