// veldrep send: sends records from a file or a pipe to report servers, through the module.
#include <algorithm>
#include <memory>

#include "apps/veldrep/command.h"
#include "apps/veldrep/key_option.h"
#include "apps/veldrep/option_checks.h"
#include "apps/veldrep/send_run.h"

namespace veld_report::app {
namespace {

void CheckSense(const SendOptions& options) {
  for (const std::string& url : options.urls) {
    if (url.starts_with("http://") || url.starts_with("https://")) continue;
    throw WrongCommandLine("--url " + url + ": must begin with http:// or https://");
  }
  const auto isTls = [](const std::string& url) { return url.starts_with("https://"); };
  if (!options.certificates.empty() && std::ranges::none_of(options.urls, isTls)) {
    throw WrongCommandLine("--certificate: no --url begins with https://, so nothing would check it");
  }
  if (!options.consumers.empty() && options.consumers.size() != options.urls.size()) {
    throw WrongCommandLine("--consumer: give none, or one for each --url, in the same order");
  }
  if (options.fromLine != 1 && options.file.empty())
    throw WrongCommandLine("--from-line is the number of a line of FILE: give FILE too");
  const auto& consumers = options.consumers;
  if (!options.to.empty() && std::find(consumers.begin(), consumers.end(), options.to) == consumers.end()) {
    throw WrongCommandLine("--to " + options.to +
                           ": no --consumer has this name, so the records would go nowhere");
  }
  for (std::size_t i = 0; i < options.urls.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (options.urls[i] != options.urls[j]) continue;
      if (consumers.empty() || consumers[i] == consumers[j]) {
        throw WrongCommandLine("--url " + options.urls[i] +
                               ": given twice, so each record would go there twice");
      }
    }
  }
}

void AddTargets(CLI::App* command, SendOptions* options) {
  command
      ->add_option("--store", options->store,
                   "folder that keeps the records until they are delivered; created if missing")
      ->type_name("DIR")
      ->required();
  // Without allow_extra_args(false) an option that may be repeated would swallow FILE.
  command->add_option("--url", options->urls, "address of a report server; may be repeated")
      ->type_name("URL")
      ->allow_extra_args(false)
      ->required();
  command->add_flag("--allow-http", options->allowHttp,
                    "allow http:// urls to other machines, where anyone on the way can read the records");
  command
      ->add_option(
          "--certificate", options->certificates,
          "file with CA certificates (PEM), or pin of the server's key (sha256//BASE64), to trust for "
          "https:// in place of the system's; may be repeated")
      ->type_name("FILE|PIN")
      ->allow_extra_args(false);
  command
      ->add_option("--consumer", options->consumers,
                   "consumer name of the --url in the same position; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  command
      ->add_option(
          "--compress", options->compress,
          "how messages are compressed: none, gzip or zstd; a server that answers 415 gets plain ones")
      ->type_name("CODING")
      ->check(OneOf({"none", "gzip", "zstd"}))
      ->capture_default_str();
  command->add_option("--to", options->to, "consumer that the records are for; every url if not given")
      ->type_name("NAME");
}

void AddLimits(CLI::App* command, SendOptions* options) {
  command->add_option("--packet-limit", options->packetLimit, "maximum number of records in a message")
      ->type_name("N")
      ->check(NumberFrom(1, 1'000'000))
      ->capture_default_str();
  // The module counts bytes in 32 bits, so 4 GiB would wrap to 0.
  command
      ->add_option("--queue-limit", options->queueLimitKb,
                   "maximum size of a queue, in KiB; reading pauses when it is nearly full")
      ->type_name("KIB")
      ->check(NumberFrom(1, 4'194'303))
      ->capture_default_str();
  command
      ->add_option("--send-timeout", options->sendTimeoutSeconds,
                   "seconds between attempts to send while records wait")
      ->type_name("S")
      ->check(NumberFrom(1, 86'400))
      ->capture_default_str();
  command
      ->add_option(
          "--wait", options->waitSeconds,
          "maximum seconds to wait for the last deliveries, and for room in a full queue or on a full disk")
      ->type_name("S")
      ->check(NumberFrom(0, 1'000'000))
      ->capture_default_str();
}

void AddOthers(CLI::App* command, SendOptions* options) {
  command->add_flag("--stamp", options->stamp,
                    "add \"recordId\" (a UUID) and \"recordTime\" to each record that doesn't have them");
  command->add_option("--sign", options->signKey, "private key (PEM) to sign the messages with")
      ->type_name("FILE");
  command->add_option("--trace", options->trace, "file to append trace lines to")->type_name("FILE");
  command->add_option("--trace-level", options->traceLevel, "300: failures only, 700: everything")
      ->type_name("N")
      ->check(NumberFrom(1, 1'000'000))
      ->capture_default_str();
  command
      ->add_option("--module", options->modulePath,
                   "path of the module; by default libveld_report.so is looked for near veldrep")
      ->type_name("PATH");
  command
      ->add_option("--from-line", options->fromLine,
                   "number of the first line of FILE to send, as a run that was stopped has named it")
      ->type_name("N")
      ->check(NumberFrom(1, INT64_MAX))
      ->capture_default_str();
  command
      ->add_option("FILE", options->file,
                   "records, one JSON object per line; - for standard input; if not given, only what waits "
                   "in the store is sent")
      ->type_name("");
}

}  // namespace

Command MakeSendCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand(
      "send", "Sends records to report servers, and those that an earlier run left in the store.");
  const auto options = std::make_shared<SendOptions>();
  AddTargets(command, options.get());
  AddLimits(command, options.get());
  AddOthers(command, options.get());
  command->footer(
      "Ends with one line: records submitted, items delivered (a record counts once for each url), "
      "refused lines,\n"
      "items still waiting, seconds. What still waits stays in the store and is sent by the next run.\n"
      "A line that isn't a JSON object is refused with its number and the reason; the exit code is then 3.\n"
      "Ctrl-C, SIGTERM or SIGHUP ends it with the number of the first line that isn't stored, for "
      "--from-line.\n"
      "Example: veldrep send --store waiting --url http://127.0.0.1:8080/v1 records.ndjson\n"
      "         tail -f app.ndjson | veldrep send --store waiting --url https://stats.example.com/v1 -");
  return {command, [options] {
            CheckSense(*options);
            SendRun run(*options);  // reads the key, or refuses it
            if (!options->signKey.empty()) WarnIfOthersCanRead("--sign", options->signKey);
            return run.Run();
          }};
}

}  // namespace veld_report::app
