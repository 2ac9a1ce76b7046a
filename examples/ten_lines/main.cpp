// A delivered record in ten lines. Usage: ten_lines STORE URL
#include <veld_report/reporter.h>

struct AppStarted {
  std::string version;
  std::int64_t startupMs;
  bool firstRun;
};
VELD_RECORD(AppStarted, 0x5a17c0de, version, startupMs, firstRun)

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  veld_report::Reporter reporter({.store = argv[1], .endpoints = {{.url = argv[2]}}});
  reporter.Send(AppStarted{"4.2.0", 312, true});
  // Otherwise the record would be sent within a second, or by the next run.
  return reporter.Flush(std::chrono::seconds(5)) ? 0 : 1;
}
