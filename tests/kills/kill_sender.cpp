// The sending process of the kill test. It sends numbered records until it is killed, and writes down which
// numbers it is about to send ("t FIRST LAST") and which ones are known to be in the store ("c FIRST LAST").
// Each line is one write, so a kill leaves whole lines. Even and odd numbers have endpoints of their own.
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/prctl.h>
#endif

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <thread>

#include "veld_report/reporter.h"

namespace kills {

struct Numbered {
  std::uint64_t number = 0;
  std::string text{};
};
VELD_RECORD(Numbered, 0x5a170041, number, text)

}  // namespace kills

namespace {

// Follows from the number alone, so that whoever reads the record can tell that nothing of it has changed.
kills::Numbered RecordOf(std::uint64_t number) {
  kills::Numbered record{number};
  for (std::uint64_t i = 0; i < number % 40; ++i) record.text += std::to_string(number) + "-";
  return record;
}

// Windows has no signals, so there it kills itself as soon as its stdin ends.
void EndWithParent() {
#ifdef _WIN32
  std::thread([] {
    while (std::getchar() != EOF) {
    }
    TerminateProcess(GetCurrentProcess(), 9);
  }).detach();
#else
  prctl(PR_SET_PDEATHSIG, SIGKILL);
#endif
}

void WriteDown(std::FILE* notes, char what, std::uint64_t first, std::uint64_t last) {
  const std::string line =
      std::string(1, what) + " " + std::to_string(first) + " " + std::to_string(last) + "\n";
  if (std::fputs(line.c_str(), notes) < 0 || std::fflush(notes) != 0) std::abort();
}

[[noreturn]] void SendUntilKilled(veld_report::Reporter& reporter, std::FILE* notes, std::uint64_t first,
                                  std::mt19937& random, std::chrono::milliseconds longestPause) {
  std::uint64_t next = first;
  std::uint64_t uncommitted = first;
  for (;;) {
    const std::uint64_t last = next + random() % 40;
    WriteDown(notes, 't', next, last);
    for (; next <= last; ++next) reporter.Send(RecordOf(next), next % 2 == 0 ? "even" : "odd");
    if (!reporter.FlushToStore(std::chrono::seconds(20))) continue;
    WriteDown(notes, 'c', uncommitted, last);
    uncommitted = next;
    std::this_thread::sleep_for(longestPause * (random() % 100) / 100);
  }
}

// 0: everything that the store held has been delivered.
int Drain(veld_report::Reporter& reporter) {
  const bool flushed = reporter.Flush(std::chrono::seconds(240));
  const veld_report::QueueLedger total = reporter.Stats().total;
  std::printf("accepted %lld, delivered %lld, waiting %lld, evicted %lld, rejected %lld\n",
              static_cast<long long>(total.accepted.items), static_cast<long long>(total.delivered.items),
              static_cast<long long>(total.waiting.items), static_cast<long long>(total.evicted.items),
              static_cast<long long>(total.rejected.items));
  veld_report::ItemCount gone = total.delivered;
  gone += total.evicted;
  gone += total.rejected;
  return flushed && total.IsBalanced() && total.accepted == gone ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string_view kind = count == 8 ? arguments[7] : "";
  const bool isKnown =
      kind == "plain" || kind == "two" || kind == "full" || kind == "shared" || kind == "stamped";
  if (!isKnown) {
    std::fprintf(stderr,
                 "usage: kill_sender MODULE STORE URL KEY NOTES FIRST plain|two|full|shared|stamped\n"
                 "a FIRST of 0 drains the store\n");
    return 2;
  }
  const std::uint64_t first = std::strtoull(arguments[6], nullptr, 10);
  if (first != 0) EndWithParent();
  std::mt19937 random(static_cast<std::mt19937::result_type>(first));
  constexpr std::uint32_t packetLimits[] = {1, 7, 20, 100};
  veld_report::ReporterOptions options;
  options.modulePath = arguments[1];
  options.store = arguments[2];
  const std::string url = arguments[3];
  options.endpoints = {{.url = url, .consumer = "even"},
                       {.url = url + (kind == "two" ? "/odd" : ""), .consumer = "odd"}};
  options.signingKeyFile = arguments[4];
  options.packetLimit = packetLimits[first == 0 ? 3 : random() % 4];
  options.queueLimitKb = kind == "full" ? 32 : 1 << 20;
  options.shared = kind == "shared";
  options.stamp = kind == "stamped";
  options.retryAfter = std::chrono::seconds(1);
  options.proxy = "";
  try {
    veld_report::Reporter reporter(options);
    if (first == 0) return Drain(reporter);
    std::FILE* const notes = std::fopen(arguments[5], "ab");
    if (!notes) throw std::runtime_error(std::string("can't open ") + arguments[5]);
    // Ten at full speed would leave more than the servers take in the time of the trial.
    SendUntilKilled(reporter, notes, first, random, std::chrono::milliseconds(options.stamp ? 30 : 0));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kill_sender: %s\n", error.what());
    return 1;
  }
}
