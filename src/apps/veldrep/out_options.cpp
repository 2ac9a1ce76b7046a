#include "apps/veldrep/out_options.h"

#include <chrono>
#include <stdexcept>

#include "apps/veldrep/command.h"
#include "apps/veldrep/option_checks.h"
#include "server/open_sink.h"
#include "server/postgres_connection.h"
#include "server/stream_url.h"

namespace veld_report::app {

void AddOutOptions(CLI::App* command, OutOptions* options) {
  command
      ->add_option(
          "--out", options->out,
          "FILE.sqlite or postgresql://USER@HOST:PORT/DATABASE is a database, nats://HOST:PORT/STREAM a "
          "stream, any other name a file of one JSON item per line; all are safe before each answer. "
          "Given several times, each gets all items")
      ->type_name("FILE")
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false)
      ->required();
  command
      ->add_option("--rotate-size", options->rotateMiB,
                   "rename the file and begin another before it exceeds this size, in MiB; 0: never")
      ->check(NumberFrom(0, 1 << 20))
      ->type_name("MIB")
      ->capture_default_str();
  command
      ->add_option("--rotate-every", options->rotateSeconds,
                   "the same after so many seconds, with the next message; 0: never")
      ->check(NumberFrom(0, 31'622'400))
      ->type_name("SECONDS")
      ->capture_default_str();
  command
      ->add_option(
          "--remember", options->remember,
          "how many ids a file of lines knows, to store no record twice; each takes up to 120 bytes of "
          "memory")
      ->check(NumberFrom(0, 100'000'000))
      ->type_name("N")
      ->capture_default_str();
}

// Rotation and a number of ids are for files of lines; to ask for them with none is a mistake.
std::vector<server::SinkOptions> ReadSinks(const OutOptions& given) {
  std::vector<server::SinkOptions> sinks;
  bool hasLines = false;
  for (const std::string& out : given.out) {
    try {
      hasLines = server::SinkKindOf(out) == server::SinkKind::lines || hasLines;
      if (server::SinkKindOf(out) == server::SinkKind::stream) server::ReadStreamUrl(out);
      if (server::SinkKindOf(out) == server::SinkKind::postgres) server::CheckPostgresUrl(out);
    } catch (const std::invalid_argument& error) {
      throw WrongCommandLine("--out " + server::DisplayName(out) + ": " + error.what());
    }
    sinks.push_back({out, given.rotateMiB << 20, std::chrono::seconds(given.rotateSeconds)});
    sinks.back().rememberedIds = given.remember;
  }
  if (hasLines) return sinks;
  if (given.rotateMiB != 0 || given.rotateSeconds != 0)
    throw WrongCommandLine(
        "--rotate-size and --rotate-every are for a file of lines; no --out of the command is one");
  if (given.remember != OutOptions().remember)
    throw WrongCommandLine("--remember is for a file of lines; databases know the ids of all their rows");
  return sinks;
}

}  // namespace veld_report::app
