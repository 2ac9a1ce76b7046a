// SinkSet: the sinks of a server, each of which gets every packet.
//
// A packet counts as stored once all have it. If one can't store it, the sender keeps it and sends it again,
// and those that have it drop what they know by id. So that records without an id don't come twice for every
// attempt, a sink that failed last time is tried first: while it is away, the others get nothing. Only the
// packets that were in progress when it failed can come twice.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/record_sink.h"

namespace veld_report::server {

// Threads: any, for all operations.
class SinkSet {
 public:
  using Log = std::function<void(const std::string&)>;

  // Opens all sinks, with `log` in place of theirs; it may be empty. `log` hears of each sink once when it
  // can't store any more, and once when it can again. `meanwhile` says in that sentence what becomes of the
  // packets: "senders are answered 503". Throws std::runtime_error with a sentence.
  SinkSet(std::vector<SinkOptions> sinks, Log log, std::string meanwhile);

  // The result is that of the sink that stored most: a record counts as stored if one of them didn't have it.
  // Throws std::runtime_error with the sentence of the sink that can't store the packet, and PacketTooLarge,
  // having stored nothing, if one of them never can.
  StoreResult Store(const SinkPacket& packet);
  // RecordSink::Reopen of each. A failure goes to the log.
  void Reopen();
  // RecordSink::MaxPacketBytes of the one that takes least. `name`: gets its name; may be null.
  std::size_t MaxPacketBytes(std::string* name = nullptr) const;
  // Whether one of them couldn't store the latest packet that it got; with `within`, and got that so lately.
  bool IsFailing(std::optional<std::chrono::milliseconds> within = std::nullopt) const;

 private:
  struct Member {
    std::string out;
    std::unique_ptr<RecordSink> sink;
    std::atomic<bool> fails{false};  // a hint for the order, and whether the log has heard of it
    std::atomic<std::chrono::steady_clock::rep> failedAt{0};  // set before `fails`, of the latest attempt
  };

  StoreResult StoreIn(Member& member, const SinkPacket& packet);
  void Say(const std::string& sentence) const;

  const Log log_;
  const std::string meanwhile_;
  std::vector<std::unique_ptr<Member>> members_;
};

}  // namespace veld_report::server
