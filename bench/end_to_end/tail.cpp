// How long the slowest calls of Send take while something else is slow. Send must wait for neither disk nor
// network, so the figures should hardly differ.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/end_to_end/modes.h"
#include "bench/end_to_end/run_host.h"
#include "bench/end_to_end/sink.h"
#include "tests/host/faulty_vfs.h"
#include "veld_report/reporter.h"

namespace veld_report::bench {
namespace {

using std::chrono::microseconds;
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

using Times = std::vector<nanoseconds>;

// How long each of the calls takes that return true, sorted.
template <class Call>
Times TimesOf(const RunOptions& options, Call&& call) {
  Times times;
  times.reserve(std::max<std::uint64_t>(options.rate, 2'000'000) *
                options.seconds);  // no page is moved meanwhile
  const auto begin = steady_clock::now();
  const auto end = begin + seconds(options.seconds);
  for (auto before = begin; before < end; before = steady_clock::now()) {
    if (!call()) continue;
    times.push_back(steady_clock::now() - before);
    if (options.rate != 0) {
      std::this_thread::sleep_until(begin + nanoseconds(1'000'000'000 / options.rate) * times.size());
    }
  }
  if (times.empty()) throw std::runtime_error("no record was accepted");
  std::ranges::sort(times);
  return times;
}

void SetShares(Result& result, const Times& times, const std::string& unit) {
  for (const auto& [name, share] :
       {std::pair{"p50", 0.5}, {"p99", 0.99}, {"p999", 0.999}, {"longest", 1.0}}) {
    const auto place = static_cast<std::size_t>(share * static_cast<double>(times.size() - 1));
    result.Set(name + unit, std::chrono::duration<double, std::micro>(times[place]).count());
  }
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
  std::uint64_t refused = 0;
  const Times sending = TimesOf(options, [&] {
    if (reporter.TrySend(record) != zel::sOk) {
      ++refused;  // memory is full; such a call is short and isn't counted
      std::this_thread::yield();
      return false;
    }
    ++record.number;
    return true;
  });
  changer.reset();
  Result result;
  result.Set("calls", std::uint64_t{sending.size()});
  result.Set("refused", refused);
  SetShares(result, sending, "Us");
  // The same loop, with the rest of the reporter at work, where a look at the clock for as long as half of
  // the calls take stands for the call. What it takes longer is the machine's part.
  const nanoseconds usual = sending[sending.size() / 2];
  std::atomic<bool> ended{false};
  std::thread other([&] {
    while (!ended) {
      if (reporter.TrySend(record) != zel::sOk || options.rate != 0)
        std::this_thread::sleep_for(microseconds(500));
    }
  });
  const Times waiting = TimesOf(options, [&] {
    for (const auto begin = steady_clock::now(); steady_clock::now() - begin < usual;) {
    }
    return true;
  });
  ended = true;
  other.join();
  SetShares(result, waiting, "UsWithoutCall");
  return result;
}

}  // namespace veld_report::bench
