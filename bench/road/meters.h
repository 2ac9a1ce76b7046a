// What a run has cost this process, and the JSON object in which it is told.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::bench {

// CPU time of this process so far, all threads, in seconds; of its children none.
double CpuSeconds();

// Memory of this process, in KB: what it has, and the most since ResetPeak.
std::uint64_t ResidentKb();
std::uint64_t PeakKb();
void ResetPeak();

// Wall and CPU time since it was made.
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
  // The CPU time of each thread that is alive, under its name, in microseconds for each of `records`.
  void SetThreads(double records);
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  void Add(std::string_view name, const std::string& json);

  std::string members_;
};

}  // namespace veld_report::bench
