#include "apps/veldrep/serve_options.h"

#include <sys/resource.h>

#include <algorithm>

#include "apps/veldrep/command.h"
#include "apps/veldrep/config_option.h"
#include "apps/veldrep/option_checks.h"

namespace veld_report::app {
namespace {

// Without a descriptor for each connection, clients would wait without a word. The soft limit is often 1024
// for no other reason than programs that use select(), which the server doesn't.
void ReserveDescriptors(unsigned connections) {
  constexpr rlim_t others = 128;  // sinks, captured bodies, the library's own, connections that are being cut
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= connections + others) return;
  if (limit.rlim_max < connections + others)
    throw WrongCommandLine("--connections " + std::to_string(connections) + ": this process may open only " +
                           std::to_string(limit.rlim_max) + " files; take at most " +
                           std::to_string(limit.rlim_max - std::min(limit.rlim_max, others)) +
                           ", or raise the limit (ulimit -Hn, or LimitNOFILE= of the service)");
  limit.rlim_cur = connections + others;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

ServeSettings ReadServeOptions(const ServeOptions& given, const Attempt& attempt) {
  ServeSettings settings;
  server::ReportServerOptions& options = settings.report;
  attempt([&] {
    const AddressOption listen = ParseAddress("--listen", given.listen);
    options.listening = given.sockets.reports;
    const bool isOpen = options.listening >= 0 && given.listenGiven->count() == 0;
    options.address = isOpen ? "" : listen.address;
    options.port = listen.port;
  });
  attempt([&] {
    if (given.certificate.empty() != given.certificateKey.empty())
      throw WrongCommandLine("--certificate and --certificate-key belong together; give both or none");
    if (!given.certificateKey.empty()) WarnIfOthersCanRead("--certificate-key", given.certificateKey);
    options.certificatePath = given.certificate;
    options.certificateKeyPath = given.certificateKey;
  });
  attempt([&] { options.sinks = ReadSinks(given.out); });
  attempt([&] {
    settings.keys = ReadKeys(given.keys);
    options.verifier = settings.keys.verifier;
    options.keyNames = settings.keys.names;
  });
  options.capturePath = given.capture;
  options.status = given.status;
  options.bodyLimitBytes = given.bodyLimitMiB << 20;
  options.bodyMemoryBytes = given.bodyMemoryMiB << 20;
  options.connectionLimit = given.connections;
  options.requestTime = std::chrono::seconds(given.requestSeconds);
  options.threads = given.threads;
  options.rate = given.rate;
  options.rateBurst = given.rateBurst != 0 ? given.rateBurst : 2.0 * given.rate;
  attempt([&] { ReserveDescriptors(given.connections); });
  attempt([&] {
    server::PageServerOptions page;
    page.listening = given.sockets.page;
    if (ReadPageOptions(*given.page, &page)) settings.page = page;
  });
  return settings;
}

void AddServeOptions(CLI::App* command, ServeOptions* options) {
  AddConfigOption(command);
  command
      ->add_flag(
          "--check-config", options->checkOnly,
          "check the options and the files that they name without listening or changing anything; print "
          "\"good\" or all that is wrong")
      ->configurable(false);
  options->listenGiven =
      command
          ->add_option("--listen", options->listen, "address and port to listen on; port 0 picks a free one")
          ->type_name("ADDRESS:PORT")
          ->capture_default_str();
  AddOutOptions(command, &options->out);
  command
      ->add_option("--key", options->keys,
                   "public key (PEM); only messages signed with its private key are accepted. Given several "
                   "times, with that of any of them. Sinks get NAME; by default it is that of the file")
      ->type_name("[NAME=]FILE")
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false);
  command
      ->add_option("--certificate", options->certificate,
                   "certificate (PEM), with those that signed it: then the server speaks TLS, 1.2 "
                   "or later. On SIGHUP it is read again")
      ->type_name("FILE");
  command->add_option("--certificate-key", options->certificateKey, "its private key (PEM)")
      ->type_name("FILE");
  command
      ->add_option(
          "--capture", options->capture,
          "folder for the bodies of refused messages, for veldrep decode: the latest 16, up to 4 MiB "
          "each")
      ->type_name("DIR");
  command
      ->add_option(
          "--status", options->status,
          "for tests: answer every valid message with this status and, unless it is 200, store nothing")
      ->check(NumberFrom(200, 599))
      ->type_name("CODE")
      ->capture_default_str();
  command
      ->add_option("--threads", options->threads,
                   "requests that are checked and stored at once; more help if a sink is far away")
      ->check(NumberFrom(1, 64))
      ->type_name("N")
      ->capture_default_str();
  command->add_option("--body-limit", options->bodyLimitMiB, "maximum size of a body, in MiB")
      ->check(NumberFrom(1, 1024))
      ->type_name("MIB")
      ->capture_default_str();
  command
      ->add_option("--body-memory", options->bodyMemoryMiB,
                   "memory for bodies that are arriving, in MiB; raised to 4 times --body-limit if lower")
      ->check(NumberFrom(1, 1 << 20))
      ->type_name("MIB")
      ->capture_default_str();
  command
      ->add_option("--connections", options->connections,
                   "maximum number of connections; above it, one of the client that has most is closed")
      ->check(NumberFrom(1, 100'000))
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--request-time", options->requestSeconds,
                   "seconds to receive the headers of a request, and again to receive its body")
      ->check(NumberFrom(1, 3600))
      ->type_name("SECONDS")
      ->capture_default_str();
  command
      ->add_option(
          "--rate", options->rate,
          "requests a second that a client address may make; above it, they are answered 429; 0: any")
      ->check(NumberFrom(0, 1'000'000))
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--rate-burst", options->rateBurst, "requests that it may make at once; 0: twice --rate")
      ->check(NumberFrom(0, 1'000'000))
      ->type_name("N")
      ->capture_default_str();
  options->page = AddPageOptions(*command);
}

}  // namespace veld_report::app
