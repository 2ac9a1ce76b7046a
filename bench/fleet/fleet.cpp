// veld_bench_fleet: many clients of one report server, on kept connections, each of which sends a signed
// packet every so often. It simulates the clients in one thread with epoll, so that it takes little of the
// machine.
//
//   veld_bench_fleet PORT KEY CONNECTIONS EVERY_MS RECORDS SECONDS
//
// KEY is a private key in PEM. With EVERY_MS 0 each client sends its next packet when the last one was
// answered. Otherwise the packets are spread evenly, and an answer's time counts from when its packet was
// due. A record has 200 bytes, and an id of its own. Once all are connected it prints "connected" and waits
// for a line on stdin. At the end it prints one line of JSON.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/signature/ed25519_key.h"

namespace veld_report::bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::uint16_t port;
  std::string key;
  std::size_t connections;
  std::chrono::milliseconds every;
  std::size_t records;
  std::chrono::seconds time;
};

std::string Base64(std::string_view text) {
  std::string encoded(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int size =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  encoded.resize(static_cast<std::size_t>(size));
  return encoded;
}

// Makes requests, each with records that no other has.
class Requests {
 public:
  explicit Requests(const Options& options)
      : key_(host::Ed25519Key::PrivateFromFile(options.key)), records_(options.records) {}

  std::string Next() {
    std::string payload = "{\"array\":[";
    for (std::size_t i = 0; i < records_; ++i) {
      char id[40];
      std::snprintf(id, sizeof id, "%08x-0000-7000-8000-%012llx", static_cast<unsigned>(getpid()), ++number_);
      payload += i == 0 ? "" : ",";
      payload += R"({"event":"opened","version":"1.4.2","page":"settings/network","text":")" +
                 std::string(36, 'x') + R"(","recordId":")" + id +
                 R"(","recordTime":"2026-03-31T09:41:07.123Z"})";
    }
    payload += "]}";
    const host::Ed25519Key::Signature signature = key_.Sign(payload);
    std::string block = R"({"alg":"EdDSA","kid":")" + key_.KeyId() + "\"}";
    block += '\0';
    block.append(reinterpret_cast<const char*>(signature.data()), signature.size());
    const std::string body =
        R"({"payload":")" + Base64(payload) + R"(","signatures":[{"protected":")" + Base64(block) + "\"}]}";
    return "POST /v1 HTTP/1.1\r\nHost: fleet.test\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
  }

 private:
  const host::Ed25519Key key_;
  const std::size_t records_;
  unsigned long long number_ = 0;
};

class Client {
 public:
  explicit Client(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (socket_ < 0 || connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::runtime_error("can't connect");
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fcntl(socket_, F_SETFL, O_NONBLOCK);
  }
  int Socket() const { return socket_; }
  bool IsWaiting() const { return waiting_; }
  Clock::time_point Due() const { return due_; }
  int Status() const { return status_; }

  void Send(std::string request, Clock::time_point due) {
    request_ = std::move(request);
    sent_ = 0;
    answer_.clear();
    due_ = due;
    waiting_ = true;
    Write();
  }
  void Write() {
    while (sent_ < request_.size()) {
      const ssize_t count = send(socket_, request_.data() + sent_, request_.size() - sent_, MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0) throw std::runtime_error("the server has closed a connection");
      sent_ += static_cast<std::size_t>(count);
    }
    std::string().swap(request_);
    sent_ = 0;
  }
  // True once the answer is whole.
  bool Read() {
    char buffer[4096];
    for (ssize_t count; (count = recv(socket_, buffer, sizeof buffer, 0)) != -1;) {
      if (count == 0) throw std::runtime_error("the server has closed a connection");
      answer_.append(buffer, static_cast<std::size_t>(count));
    }
    const std::size_t head = answer_.find("\r\n\r\n");
    if (!waiting_ || head == std::string::npos) return false;
    const std::size_t field = answer_.find("Content-Length: ");
    std::size_t length = 0;
    if (field < head) std::from_chars(answer_.data() + field + 16, answer_.data() + head, length);
    if (answer_.size() < head + 4 + length) return false;
    status_ = std::atoi(answer_.c_str() + 9);
    waiting_ = false;
    return true;
  }

 private:
  const int socket_;  // open to the end of the process
  bool waiting_ = false;
  Clock::time_point due_{};
  std::string request_;
  std::size_t sent_ = 0;
  std::string answer_;
  int status_ = 0;
};

class Fleet {
 public:
  explicit Fleet(const Options& options) : options_(options), requests_(options) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < options.connections + 50)
      throw std::runtime_error("too few file descriptors (ulimit -Hn)");
    clients_.reserve(options.connections);
    for (std::size_t i = 0; i < options.connections; ++i) {
      clients_.emplace_back(options.port);
      epoll_event event{};
      event.events = EPOLLIN | EPOLLOUT | EPOLLET;
      event.data.u64 = i;
      if (epoll_ctl(epoll_, EPOLL_CTL_ADD, clients_.back().Socket(), &event) != 0)
        throw std::runtime_error("epoll_ctl fails");
    }
  }

  void Run() {
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + options_.time;
    const bool isPaced = options_.every.count() != 0;
    if (!isPaced)
      for (Client& client : clients_) client.Send(requests_.Next(), begin);
    const std::chrono::nanoseconds gap = std::chrono::nanoseconds(options_.every) / clients_.size();
    std::size_t paced = 0;
    std::size_t waiting = isPaced ? 0 : clients_.size();
    Clock::time_point now = begin;
    // After the end, up to 10 seconds for the last answers.
    while (now < end || (waiting > 0 && now < end + std::chrono::seconds(10))) {
      for (; isPaced && now < end && begin + paced * gap <= now; ++paced) {
        Client& client = clients_[paced % clients_.size()];
        if (client.IsWaiting()) {
          ++skipped_;
        } else {
          client.Send(requests_.Next(), begin + paced * gap);
          ++waiting;
        }
      }
      epoll_event events[256];
      const int count = epoll_wait(epoll_, events, 256, 1);
      now = Clock::now();
      for (int i = 0; i < count; ++i) {
        Client& client = clients_[events[i].data.u64];
        if (events[i].events & EPOLLOUT) client.Write();
        if (!(events[i].events & (EPOLLIN | EPOLLHUP)) || !client.Read()) continue;
        --waiting;
        (client.Status() == 200 ? answered_ : refused_) += 1;
        times_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - client.Due()).count());
        last_ = now;
        if (isPaced || now >= end) continue;
        client.Send(requests_.Next(), Clock::now());
        ++waiting;
      }
    }
    std::sort(times_.begin(), times_.end());
    const auto at = [&](double part) {
      return times_.empty() ? 0.0
                            : times_[static_cast<std::size_t>(part * static_cast<double>(times_.size() - 1))];
    };
    std::printf(
        "{\"seconds\": %.3f, \"answered\": %zu, \"refused\": %zu, \"unanswered\": %zu, \"skipped\": %zu, "
        "\"p50Ms\": %.3f, \"p99Ms\": %.3f, \"longestMs\": %.3f}\n",
        std::chrono::duration<double>(last_ - begin).count(), answered_, refused_, waiting, skipped_, at(0.5),
        at(0.99), at(1));
  }

 private:
  const Options options_;
  Requests requests_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  std::vector<Client> clients_;
  std::vector<double> times_;  // of answers, in milliseconds
  std::size_t answered_ = 0;
  std::size_t refused_ = 0;
  std::size_t skipped_ = 0;  // packets that were due while the client still waited
  Clock::time_point last_{};
};

int Main(const std::vector<std::string>& words) {
  if (words.size() != 7) {
    std::fputs("usage: veld_bench_fleet PORT KEY CONNECTIONS EVERY_MS RECORDS SECONDS\n", stderr);
    return 2;
  }
  const Options options{static_cast<std::uint16_t>(std::stoul(words[1])),
                        words[2],
                        std::stoul(words[3]),
                        std::chrono::milliseconds(std::stoul(words[4])),
                        std::stoul(words[5]),
                        std::chrono::seconds(std::stoul(words[6]))};
  if (options.connections == 0 || options.records == 0) throw std::runtime_error("nothing to send");
  Fleet fleet(options);
  std::puts("connected");
  std::fflush(stdout);
  std::string line;
  std::getline(std::cin, line);
  fleet.Run();
  return 0;
}

}  // namespace
}  // namespace veld_report::bench

int main(int count, char** words) {
  try {
    return veld_report::bench::Main({words, words + count});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veld_bench_fleet: %s\n", error.what());
    return 1;
  }
}
