// What a run has cost this process, and the JSON object that reports it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::bench {

// CPU time of all threads of this process so far, in seconds. Child processes aren't included.
double CpuSeconds();

// The peak of this process's memory since ResetPeak, in KB.
std::uint64_t PeakKb();
void ResetPeak();
std::uint64_t CurrentKb();
// Of this, what isn't mapped from a file, as programs and libraries are.
std::uint64_t OwnKb();

// What this process has caused to be written to disk so far, in bytes; the kernel counts pages. 0 on a file
// system in memory.
std::uint64_t WrittenBytes();
// How often the other threads of this process have gone to sleep so far.
std::uint64_t Sleeps();

// Wall and CPU time since its construction.
class Stopwatch {
 public:
  double WallSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
  }
  double UsedCpuSeconds() const { return CpuSeconds() - cpuBegin_; }

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  const double cpuBegin_ = CpuSeconds();
};

// A flat JSON object, built member by member.
class Result {
 public:
  void Set(std::string_view name, std::uint64_t value) { Add(name, std::to_string(value)); }
  void Set(std::string_view name, double value);
  void Set(std::string_view name, bool value) { Add(name, value ? "true" : "false"); }
  void Set(std::string_view name, std::string_view text) { Add(name, "\"" + std::string(text) + "\""); }
  // The CPU time of each live thread, under its name, in microseconds per record.
  void SetThreads(double records);
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  void Add(std::string_view name, const std::string& json);

  std::string members_;
};

}  // namespace veld_report::bench
