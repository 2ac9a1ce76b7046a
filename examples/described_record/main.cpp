// A record with nested parts and renamed members, a listener, and the ledger at the end.
// Usage: described_record STORE URL
#include <veld_report/reporter.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace shop {

enum class Channel : std::uint8_t { web = 1, phone = 2 };

struct Line {
  std::string article;
  std::uint32_t count;
  double price;
};
VELD_RECORD(Line, 0x51a00001, article, count, price)

// The structs of its members must be described above. An empty optional is left out of the JSON.
struct Order {
  std::uint64_t number;
  Channel channel;
  std::vector<Line> lines;
  std::optional<std::string> voucher;
  std::vector<std::string> tags;
  veld_report::Json extra;
};
VELD_RECORD(Order, 0x51a00002, (number, "order_number"), channel, lines, voucher, tags, extra)

}  // namespace shop

namespace {

// Runs on a thread of the HTTP client, once for each completed request.
void Report(const veld_report::FinishedRequest& request) {
  const bool delivered = request.result == zel::sOk;
  std::printf("%s %s\n", request.url.c_str(), delivered ? "has taken its records" : "has to be tried again");
  std::fflush(stdout);
}

int Run(const char* store, const char* url) {
  veld_report::Reporter reporter({.store = store,
                                  .endpoints = {{.url = url, .consumer = "sales"}},
                                  .retryAfter = std::chrono::seconds(1),
                                  .listener = Report});
  reporter.Send(shop::Order{.number = 4711,
                            .channel = shop::Channel::web,
                            .lines = {{"Gewürzregal", 1, 39.9}, {"Dübel 6 mm", 20, 0.05}},
                            .voucher = std::nullopt,
                            .tags = {"new customer"},
                            .extra = {R"({"ab_test":{"checkout":"b"}})"}},
                "sales");
  // For records that have no struct.
  reporter.Send(veld_report::RecordBuilder().Add("event", "checkout").Add("steps", 3), "sales");

  const bool allDone = reporter.Flush(std::chrono::seconds(10));
  const veld_report::Statistics statistics = reporter.Stats();
  std::printf("accepted %lld, delivered %lld, waiting %lld\n",
              static_cast<long long>(statistics.total.accepted.items),
              static_cast<long long>(statistics.total.delivered.items),
              static_cast<long long>(statistics.total.waiting.items));
  return allDone ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: described_record STORE URL\n");
    return 2;
  }
  try {
    return Run(argv[1], argv[2]);
  } catch (const veld_report::ReporterError& error) {
    std::fprintf(stderr, "described_record: %s\n", error.what());
    return 1;
  }
}
