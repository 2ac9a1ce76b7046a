// The sending process of the trial that measures what a crash takes. It sends records, all of one size, until
// it is killed, and notes in a mapped file when each was accepted: a number of nanoseconds for each record,
// on the monotonic clock. What is in such a file stays there when the process is killed.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include "veld_report/reporter.h"

namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::size_t maxRecords = 20'000'000;
// Of 200 bytes.
const std::string record = R"({"text":")" + std::string(189, 'x') + "\"}";

std::span<std::int64_t> MapNotes(const char* path) {
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  constexpr std::size_t size = maxRecords * sizeof(std::int64_t);
  if (file < 0 || ftruncate(file, size) != 0) throw std::runtime_error("no file for the notes");
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("the notes can't be mapped");
  return {static_cast<std::int64_t*>(memory), maxRecords};
}

void SendUntilKilled(veld_report::Reporter& reporter, std::span<std::int64_t> notes, std::int64_t perSecond) {
  const auto begin = steady_clock::now();
  for (std::size_t count = 0; count < notes.size();) {
    if (reporter.TrySendJson(record) != 0) {
      std::this_thread::yield();  // memory is full
      continue;
    }
    notes[count++] = steady_clock::now().time_since_epoch().count();
    if (perSecond == 0) continue;
    std::this_thread::sleep_until(begin + nanoseconds(1'000'000'000 / perSecond) * count);
  }
}

// What the store's threads do, wake at a time and write, done by a thread that does nothing else: whatever it
// is late by is the machine's doing. `notes` gets the time of each beat.
void Beat(std::span<std::int64_t> notes, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string page(4096, 'x');
  for (std::int64_t& beat : notes) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (write(file, page.data(), page.size()) < 0) return;
    beat = steady_clock::now().time_since_epoch().count();
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(
        stderr,
        "usage: loss_sender MODULE STORE URL NOTES PER_SECOND MEMORY_BYTES\n"
        "a PER_SECOND of 0 means as fast as possible; -1 only prints how many records the store got\n");
    return 2;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  veld_report::ReporterOptions options;
  options.modulePath = arguments[1];
  options.store = arguments[2];
  options.endpoints = {{.url = arguments[3]}};
  options.queueLimitKb = 1 << 21;
  options.storeWithin = std::chrono::milliseconds(20);
  options.memoryLimitBytes = std::strtoull(arguments[6], nullptr, 10);
  options.proxy = "";
  try {
    const std::int64_t perSecond = std::strtoll(arguments[5], nullptr, 10);
    options.sendingAllowed = perSecond >= 0;
    veld_report::Reporter reporter(options);
    const std::string beats = std::string(arguments[4]) + ".beats";
    if (perSecond > 0) std::thread([=] { Beat(MapNotes(beats.c_str()), beats + ".file"); }).detach();
    if (perSecond >= 0) SendUntilKilled(reporter, MapNotes(arguments[4]), perSecond);
    std::printf("%lld\n", static_cast<long long>(reporter.Stats().total.accepted.items));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "loss_sender: %s\n", error.what());
  }
  return 1;
}
