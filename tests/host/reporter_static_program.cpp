// A program whose reporter is a static object: MODULE STORE URL. Run by reporter_close_test.cpp.
#include "veld_report/reporter.h"

namespace {

// Ends after the function that made it static, and before an older one.
struct SendsAtTheEnd {
  veld_report::Reporter& reporter;
  ~SendsAtTheEnd() { reporter.TrySendJson(R"({"from":"a static destructor"})"); }
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4) return 2;
  veld_report::ReporterOptions options;
  options.modulePath = arguments[1];
  options.store = arguments[2];
  options.endpoints = {{arguments[3]}};
  options.closeDeadline = std::chrono::seconds(3);
  static veld_report::Reporter reporter(options);
  static const SendsAtTheEnd last{reporter};
  reporter.SendJson(R"({"from":"main"})");
  return 0;
}
