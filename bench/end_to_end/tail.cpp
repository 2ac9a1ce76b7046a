// How long the slowest calls of Send take while something else is slow. Send must wait for neither disk nor
// network, so the figures should hardly differ.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/end_to_end/modes.h"
#include "bench/end_to_end/run_host.h"
#include "bench/end_to_end/sink.h"
#include "tests/host/faulty_vfs.h"
#include "veld_report/reporter.h"

namespace veld_report::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Takes connections and never answers.
class HangingServer {
 public:
  HangingServer() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, generic, size) != 0 || listen(socket_, 16) != 0 ||
        getsockname(socket_, generic, &size) != 0) {
      throw std::runtime_error("no port is free for a server");
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  HangingServer(const HangingServer&) = delete;
  HangingServer& operator=(const HangingServer&) = delete;
  ~HangingServer() { close(socket_); }
  const std::string& Url() const { return url_; }

 private:
  const int socket_;
  std::string url_;
};

// Changes the settings every millisecond.
class Changer {
 public:
  explicit Changer(Reporter& reporter)
      : thread_([this, &reporter] {
          Settings settings = reporter.CurrentSettings();
          while (!ended_) {
            ++settings.packetLimit;
            reporter.SetSettings(settings);
            std::this_thread::sleep_for(milliseconds(1));
          }
        }) {}
  Changer(const Changer&) = delete;
  Changer& operator=(const Changer&) = delete;
  ~Changer() {
    ended_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

void SlowDownSyncs() {
  tests::FaultyVfs::SetDefault(true);
  tests::FaultyVfs::observer = [](tests::FaultyVfs::Event event, auto&&...) {
    if (event == tests::FaultyVfs::Event::sync) std::this_thread::sleep_for(milliseconds(500));
  };
}

}  // namespace

Result MeasureTail(const RunOptions& options) {
  const StoreFolder folder(options);
  const Sink sink(0);
  const HangingServer hanging;
  ReporterOptions own;
  own.store = folder.Path();
  own.proxy = "";
  own.closeDeadline = milliseconds(0);
  own.endpoints = {{.url = options.beside == "hanging-server" ? hanging.Url() : sink.Url()}};
  own.syncEveryCommit = options.beside == "slow-syncs";
  if (own.syncEveryCommit) SlowDownSyncs();
  Reporter reporter(own);
  std::optional<Changer> changer;
  if (options.beside == "settings") changer.emplace(reporter);

  Opened record = OpenedOfSize(options.size, firstNumber);
  std::vector<nanoseconds> times;
  std::uint64_t refused = 0;
  const auto begin = steady_clock::now();
  const auto end = begin + seconds(options.seconds);
  for (auto before = begin; before < end; before = steady_clock::now()) {
    if (reporter.TrySend(record) != zel::sOk) {
      ++refused;  // memory is full; such a call is short and isn't counted
      std::this_thread::yield();
      continue;
    }
    times.push_back(steady_clock::now() - before);
    ++record.number;
    if (options.rate != 0) {
      std::this_thread::sleep_until(begin + nanoseconds(1'000'000'000 / options.rate) * times.size());
    }
  }
  changer.reset();
  if (times.empty()) throw std::runtime_error("no record was accepted");
  std::ranges::sort(times);
  const auto micros = [&](double share) {
    const auto place = static_cast<std::size_t>(share * static_cast<double>(times.size() - 1));
    return std::chrono::duration<double, std::micro>(times[place]).count();
  };
  Result result;
  result.Set("calls", std::uint64_t{times.size()});
  result.Set("refused", refused);
  result.Set("p50Us", micros(0.5));
  result.Set("p99Us", micros(0.99));
  result.Set("p999Us", micros(0.999));
  result.Set("longestUs", micros(1));
  return result;
}

}  // namespace veld_report::bench
