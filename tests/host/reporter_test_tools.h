// What the tests of the reporter share: a store in a folder of its own, report servers, programs to run.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tests/common/program.h"
#include "tests/host/serving_test.h"
#include "veld_report/reporter.h"

namespace veld_report {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class ReporterTest : public tests::ServingTest {
 protected:
  ReporterOptions Options(std::vector<Endpoint> endpoints, const std::string& store = "store") {
    ReporterOptions options;
    options.modulePath = VELD_MODULE_PATH;
    options.store = Path(store);
    options.endpoints = std::move(endpoints);
    options.closeDeadline = milliseconds(0);
    return options;
  }
};

template <class Body>
milliseconds TimeOf(Body&& body) {
  const auto begin = steady_clock::now();
  body();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
}

}  // namespace veld_report
