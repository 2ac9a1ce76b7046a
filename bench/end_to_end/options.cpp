#include "bench/end_to_end/options.h"

#include <charconv>
#include <map>
#include <stdexcept>
#include <string_view>

namespace veld_report::bench {
namespace {

constexpr char usage[] =
    "usage: veld_bench_end_to_end [--mode MODE] [--NAME VALUE]...\n"
    "modes:\n"
    "  end-to-end  records from submission to status 200 and out of the store\n"
    "  reporter    the same through the reporter, which holds `pending` records in memory (100000 unless "
    "given);\n"
    "              with `compress` (none, gzip or zstd) its records are stamped and differ\n"
    "  push        from submission to the store, with `fill` items waiting there\n"
    "  drain       `fill` items from the store to status 200, `rounds` times\n"
    "  evict       push, into an empty queue and into a full one of 2048 KB\n"
    "  start       from the making of the host to the first item read, with `fill` items waiting\n"
    "  queues      a cycle with `urls` queues of which `active` have `records` items each\n"
    "  idle        a reporter with nothing to do, for `seconds`\n"
    "  down        a reporter with `records` records for `urls` servers that are down\n"
    "  trickle     a reporter that sends one record a second\n"
    "  paced       a reporter that sends `rate` records a second\n"
    "  tail        the slowest of `rate` calls of Send a second, for `seconds`, beside `beside`: nothing "
    "else,\n"
    "              slow-syncs (500 ms each), hanging-server or settings (a change every millisecond)\n"
    "  fill        nothing but `fill` items into `store`\n"
    "names: records size urls active packet pending fill rounds seconds queue-limit-kb port timeout-s store\n"
    "       rate beside compress store-within-ms\n"
    "The result is one JSON object on standard output.";

[[noreturn]] void Refuse(const std::string& what) { throw std::invalid_argument(what + "\n" + usage); }

std::uint64_t Number(const std::string& name, std::string_view text) {
  std::uint64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size()) Refuse(name + " must be a number");
  return value;
}

}  // namespace

RunOptions ParseOptions(int argc, char** argv) {
  RunOptions options;
  const std::map<std::string, std::uint64_t*> numbers = {
      {"--records", &options.records}, {"--size", &options.size},
      {"--urls", &options.urls},       {"--active", &options.active},
      {"--packet", &options.packet},   {"--pending", &options.pending},
      {"--fill", &options.fill},       {"--rounds", &options.rounds},
      {"--seconds", &options.seconds}, {"--queue-limit-kb", &options.queueLimitKb},
      {"--port", &options.port},       {"--timeout-s", &options.timeoutS},
      {"--rate", &options.rate},       {"--store-within-ms", &options.storeWithinMs},
  };
  const std::map<std::string, std::string*> texts = {{"--mode", &options.mode},
                                                     {"--store", &options.store},
                                                     {"--beside", &options.beside},
                                                     {"--compress", &options.compress}};
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    const auto number = numbers.find(name);
    const auto text = texts.find(name);
    if ((number == numbers.end() && text == texts.end()) || ++i == argc) Refuse("what is " + name + "?");
    if (number != numbers.end()) {
      *number->second = Number(name, argv[i]);
    } else {
      *text->second = argv[i];
    }
  }
  if (options.urls == 0 || options.rounds == 0) Refuse("0 is too few");
  return options;
}

}  // namespace veld_report::bench
