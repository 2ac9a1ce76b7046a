// Runs the transcripts: files of commands whose exit codes and output are compared whole.
//
//   # says what follows
//   $ veldrep decode body         a command, run to its end in the transcript's own folder, without a shell
//                                 {veldrep} is the program's path
//   < {"payload": ...             a line of its input
//   | body: 104 bytes             a line that it has written to stdout,
//   ! veldrep: ...                and one to stderr
//   = 1                           its exit code, if that isn't 0, or the signal that ended it
//   & server veldrep serve ...    the same in the background, until it listens; {server} is its url and
//   {server address} what
//                                 --listen takes, from here on
//   % server TERM                 sends a signal to it and waits for its end, or with HUP for a line of its
//   log about the certificate
//
// With VELD_REWRITE_TRANSCRIPTS set, the files are written anew; the difference is to be read like code.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <map>
#include <memory>
#include <regex>
#include <sstream>

#include "tests/common/files.h"
#include "tests/common/veldrep.h"

namespace veld_report::app_test {
namespace {

using tests::Arguments;
using tests::Lines;

class Transcript {
 public:
  // What the transcript looks like if its commands are run.
  std::string Replay(const std::string& text) {
    const auto lines = Lines(text);
    for (auto line = lines.begin(); line != lines.end();) {
      const std::string head = *line++;
      if (head.find_first_of("|!=") == 0) continue;
      std::string input;
      shown_ += head + "\n";
      for (; line != lines.end() && line->starts_with("< "); ++line) {
        shown_ += *line + "\n";
        input += line->substr(2) + "\n";
      }
      if (!head.empty()) Run(head[0], Words(head.substr(1)), input);
    }
    return shown_;
  }

 private:
  Arguments Words(std::string line) const {
    for (const auto& [name, server] : servers_) {
      line = std::regex_replace(line, std::regex("\\{" + name + "\\}"), server->Url());
      line = std::regex_replace(line, std::regex("\\{" + name + " address\\}"), server->Address());
    }
    line = std::regex_replace(line, std::regex("\\{veldrep\\}"), VELDREP_PATH);
    std::istringstream stream(line);
    Arguments words;
    // No character escapes another one.
    for (std::string word; stream >> std::quoted(word, '\'', '\0');) words.push_back(word);
    return words;
  }
  void Run(char what, Arguments words, const std::string& input) {
    if (what == '$') {
      if (words.at(0) == "veldrep") words[0] = VELDREP_PATH;
      tests::Program program(words, folder_.Path());
      program.Feed(input);
      Show(program);
    } else if (what == '&') {  // the words after the name are "veldrep serve ..."
      const Arguments more(words.begin() + 3, words.end());
      servers_[words[0]] = std::make_unique<tests::Server>(more, folder_.Path());
    } else if (what == '%') {
      static const std::map<std::string, int> signals = {
          {"KILL", SIGKILL}, {"INT", SIGINT}, {"TERM", SIGTERM}};
      tests::Server& server = *servers_.at(words.at(0));
      if (words.at(1) == "HUP") {  // which it answers with a line of its log
        const std::size_t before = server.Errors().size();
        server.Signal(SIGHUP);
        EXPECT_TRUE(tests::Eventually(
            [&] { return server.Errors().find("certificate", before) != std::string::npos; }));
        return;
      }
      servers_.at(words.at(0))->Signal(signals.at(words.at(1)));
      Show(*servers_.at(words[0]));
    }
  }
  void Show(tests::Program& program) {
    const int exitCode = program.Wait();
    // Only stdout and stderr each keep their order.
    for (const std::string& each : Lines(program.Output())) shown_ += Fixed("| " + each) + "\n";
    for (const std::string& each : Lines(program.Errors())) shown_ += Fixed("! " + each) + "\n";
    if (exitCode > 0) shown_ += "= " + std::to_string(exitCode) + "\n";
    if (exitCode < 0) shown_ += "= signal " + std::to_string(-exitCode) + "\n";
  }
  // Without what differs from run to run.
  std::string Fixed(std::string line) const {
    line = std::regex_replace(line, std::regex(folder_.Path().string()), "{folder}");
    for (const auto& [name, server] : servers_) {
      line = std::regex_replace(line, std::regex(server->Url() + "\\b"), "{" + name + "}");
    }
    static const std::pair<std::regex, const char*> varying[] = {
        {std::regex(R"( +\d+(\.\d)? (ms|s)\b)"), " {time}"},
        {std::regex(R"(\d+\.\d seconds)"), "{time}"},
        {std::regex(R"(\d+ bytes (on disk|before|after))"), "{size} bytes $1"},
        {std::regex(R"((age_ms":|waits_ms":)\d+)"), "$1{time}"},
        {std::regex(R"(\d{8}T\d{6}Z)"), "{moment}"},
        {std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"), "{moment}"},
        {std::regex(R"(127\.0\.0\.1 port \d+)"), "127.0.0.1 port {port}"},
        {std::regex(R"(\b[0-9a-f]{32}\b)", std::regex::icase), "{digest}"},
        {std::regex(R"(key id: \S+)"), "key id: {id}"},
        {std::regex(R"(\([\w-]{43}\))"), "({id})"},
        {std::regex(R"(\d+ requests? (was|were) refused)"), "{count} requests were refused"},
    };
    for (const auto& [pattern, name] : varying) line = std::regex_replace(line, pattern, name);
    return line;
  }

  const tests::TemporaryFolder folder_;
  std::map<std::string, std::unique_ptr<tests::Server>> servers_;
  std::string shown_;
};

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (const auto& each : std::filesystem::directory_iterator(TRANSCRIPTS))
    names.push_back(each.path().stem());
  std::ranges::sort(names);
  return names;
}

class Transcripts : public testing::TestWithParam<std::string> {};

TEST_P(Transcripts, ReadAsRecorded) {
  const std::filesystem::path file = std::filesystem::path(TRANSCRIPTS) / (GetParam() + ".txt");
  const std::string recorded = tests::ReadFile(file);
  ASSERT_NE(recorded, "");
  const std::string replayed = Transcript().Replay(recorded);
  if (std::getenv("VELD_REWRITE_TRANSCRIPTS")) return tests::WriteFile(file, replayed);
  EXPECT_EQ(replayed, recorded) << "VELD_REWRITE_TRANSCRIPTS=1 records it anew";
}

INSTANTIATE_TEST_SUITE_P(Veldrep, Transcripts, testing::ValuesIn(Names()),
                         [](const auto& instance) { return instance.param; });

}  // namespace
}  // namespace veld_report::app_test
