// veldrep drain: moves packets from a stream to sinks, until SIGTERM, SIGINT or --idle.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "apps/veldrep/command.h"
#include "apps/veldrep/ending_signals.h"
#include "apps/veldrep/failure.h"
#include "apps/veldrep/option_checks.h"
#include "apps/veldrep/out_options.h"
#include "server/open_sink.h"
#include "server/stream_drain.h"

namespace veld_report::app {
namespace {

struct DrainCommandOptions {
  std::string from;
  OutOptions out;
  std::string consumer = "veldrep-drain";
  unsigned threads = 8;
  unsigned idleSeconds = 0;
};

server::StreamUrl ReadFrom(const DrainCommandOptions& given) {
  server::StreamUrl from;
  try {
    from = server::ReadStreamUrl(given.from);
  } catch (const std::invalid_argument& error) {
    throw WrongCommandLine("--from " + server::DisplayName(given.from) + ": " + error.what());
  }
  for (const std::string& out : given.out.out) {
    if (server::SinkKindOf(out) == server::SinkKind::stream &&
        server::ReadStreamUrl(out).stream == from.stream)
      throw WrongCommandLine("--out " + server::DisplayName(out) +
                             ": the stream that packets are taken from; expected another name");
  }
  return from;
}

bool IsName(const std::string& text) {
  return !text.empty() && text.size() <= 64 &&
         text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-") ==
             std::string::npos;
}

int Drain(const DrainCommandOptions& given) {
  server::DrainOptions options;
  options.sinks = ReadSinks(given.out);
  options.from = ReadFrom(given);
  if (!IsName(given.consumer))
    throw WrongCommandLine("--consumer " + given.consumer + ": expected up to 64 letters, digits, _ and -");
  options.consumer = given.consumer;
  options.threads = given.threads;
  options.idle = std::chrono::seconds(given.idleSeconds);
  options.log = Complain;
  options.onEnd = [] { kill(getpid(), SIGTERM); };

  const EndingSignals ending;

  const std::string name = options.from.Name();
  server::StreamDrain drain(std::move(options));
  std::printf("draining %s\n", name.c_str());
  std::fflush(stdout);
  ending.Wait([&] { drain.ReopenSinks(); });
  drain.Stop();
  std::printf("drained: stored %llu, repeated %llu, %llu messages taken out for good\n",
              static_cast<unsigned long long>(drain.StoredItems()),
              static_cast<unsigned long long>(drain.RepeatedItems()),
              static_cast<unsigned long long>(drain.TerminatedMessages()));
  if (drain.Failure().empty()) return exitOk;
  Complain(drain.Failure());
  return exitFailed;
}

}  // namespace

Command MakeDrainCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand(
      "drain", "Moves what veldrep serve has put into a stream to files or databases.");
  const auto options = std::make_shared<DrainCommandOptions>();
  command
      ->add_option("--from", options->from,
                   "the stream: nats://HOST:PORT[,HOST:PORT...]/STREAM, as in --out of serve")
      ->type_name("URL")
      ->required();
  AddOutOptions(command, &options->out);
  command
      ->add_option("--consumer", options->consumer,
                   "name that the brokers remember the progress by; drains with the same name share the work")
      ->type_name("NAME")
      ->capture_default_str();
  command->add_option("--threads", options->threads, "packets to store at once")
      ->check(NumberFrom(1, 256))
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--idle", options->idleSeconds,
                   "end when no packet has come for so many seconds and none is with another drain; 0: never")
      ->check(NumberFrom(0, 86'400))
      ->type_name("SECONDS")
      ->capture_default_str();
  command->footer(
      "SIGTERM or Ctrl-C ends it once the packets that it holds are stored, after 5 seconds at most; the "
      "others "
      "stay in the stream. On SIGHUP it opens files anew.\n"
      "Example: veldrep drain --from nats://127.0.0.1:4222/reports --out reports.sqlite");
  return {command, [options] { return Drain(*options); }};
}

}  // namespace veld_report::app
