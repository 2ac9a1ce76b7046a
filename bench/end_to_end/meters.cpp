#include "bench/end_to_end/meters.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>

namespace veld_report::bench {
namespace {

// The number after this word in a file of the kernel, such as "VmHWM:    1234 kB".
std::uint64_t NumberAfter(const std::string& name, const std::filesystem::path& file) {
  std::ifstream text(file);
  for (std::string word; text >> word;) {
    std::uint64_t value = 0;
    if (word == name && text >> value) return value;
  }
  return 0;
}

}  // namespace

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::uint64_t PeakKb() { return NumberAfter("VmHWM:", "/proc/self/status"); }
void ResetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }
std::uint64_t OwnKb() { return NumberAfter("RssAnon:", "/proc/self/status"); }
std::uint64_t CurrentKb() { return NumberAfter("VmRSS:", "/proc/self/status"); }

std::uint64_t WrittenBytes() { return NumberAfter("write_bytes:", "/proc/self/io"); }

std::uint64_t Sleeps() {
  std::uint64_t sleeps = 0;
  std::error_code ignored;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
    if (task.path().filename() == std::to_string(::getpid())) continue;
    sleeps += NumberAfter("voluntary_ctxt_switches:", task.path() / "status");
  }
  return sleeps;
}

void Result::Set(std::string_view name, double value) {
  char text[40];
  std::snprintf(text, sizeof(text), "%.6g", value);
  Add(name, text);
}

void Result::SetThreads(double records) {
  std::map<std::string, double> seconds;
  std::error_code ignored;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
    double nanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    seconds[name] += nanoseconds * 1e-9;
  }
  for (const auto& [name, used] : seconds) Set("cpuUs." + name, used / records * 1e6);
}

void Result::Add(std::string_view name, const std::string& json) {
  if (!members_.empty()) members_ += ",";
  members_.append("\"").append(name).append("\":").append(json);
}

}  // namespace veld_report::bench
