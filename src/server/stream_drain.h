// StreamDrain: takes packets out of a JetStream stream and puts them into sinks.
//
// It is a durable pull consumer: the brokers remember what was taken, so it can be killed at any time, and
// any number of drains share the work. A packet is acknowledged once all sinks have it. One that was stored
// and not acknowledged, because this process was killed in between, comes again, and the sinks drop the
// records that have ids.
//
// A message that isn't a packet is taken out for good, logged and counted. Everything else waits in the
// stream until it is stored: if a sink or the brokers are away, the drain tries on.
//
// Life: works from the constructor's return to Stop, the destructor, or its own end: after `idle`, or because
// a sink can never take a packet or the consumer is of another kind.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "server/sink_set.h"
#include "server/stream_link.h"

namespace veld_report::server {

struct DrainOptions {
  StreamUrl from;  // its partitions are read; the streams must exist or come into being
  std::vector<SinkOptions> sinks;
  std::string consumer = "veldrep-drain";  // drains with the same one share the packets
  unsigned threads = 8;                    // each stores one packet at a time
  // It ends when no packet has come for so long and none is with another drain; 0: never. While brokers are
  // away, the time doesn't run.
  std::chrono::seconds idle{0};
  // Called once on one of its threads when it ends by itself. It must not call Stop.
  std::function<void()> onEnd;
  // Called with one sentence for each event, on its threads; may be empty.
  std::function<void(const std::string&)> log;
};

class StreamDrain {
 public:
  // How long Stop goes on with the packets that it holds. What isn't stored then stays in the stream.
  static constexpr std::chrono::seconds stopPatience{5};

  // Throws std::runtime_error with a sentence if a sink can't be opened or the url makes no sense.
  explicit StreamDrain(DrainOptions options);
  ~StreamDrain();
  StreamDrain(const StreamDrain&) = delete;
  StreamDrain& operator=(const StreamDrain&) = delete;

  // Takes no more packets, finishes those that it holds and returns once no thread runs. A second call does
  // nothing. Not to be called on one of its threads.
  void Stop();
  void ReopenSinks() { sinks_.Reopen(); }

  // Threads: any.
  std::uint64_t StoredItems() const { return stored_; }
  std::uint64_t RepeatedItems() const { return repeated_; }
  std::uint64_t TerminatedMessages() const { return terminated_; }
  // Why it ended by itself; empty: it didn't, or there was nothing left. Call after Stop.
  const std::string& Failure() const { return failure_; }

 private:
  using Time = std::chrono::steady_clock::time_point;
  class Reader;

  void Work(const std::string& stream);
  // Both return whether the message is done with: false leaves it in the stream.
  bool Deliver(Reader& reader, std::size_t index);
  bool StoreWhole(Reader& reader, const SinkPacket& packet);
  void ReadingFails(const std::string& sentence);
  void ReadingWorks();
  void EndIfIdle();
  // Nothing waits in any partition, nor with a drain that may have been killed. False if that can't be told.
  bool IsAllDone() const;
  // Ends the work, with a sentence or without.
  void End(const std::string& failure);
  // Sleeps unless the drain is to stop.
  void Pause(std::chrono::milliseconds time);
  void Say(const std::string& sentence) const;

  const DrainOptions options_;
  SinkSet sinks_;
  StreamLink link_;
  // Figures. After Stop, which joins the threads, they are exact.
  std::atomic<std::uint64_t> stored_{0};
  std::atomic<std::uint64_t> repeated_{0};
  std::atomic<std::uint64_t> terminated_{0};

  std::mutex mutex_;  // guards the members below; held across nothing that waits
  std::condition_variable changed_;
  bool stopping_ = false;
  bool ended_ = false;  // by itself
  bool readingFails_ = false;
  Time stopDeadline_{};
  Time latest_ = std::chrono::steady_clock::now();  // when the latest packet came or reading failed
  std::string failure_;

  std::vector<std::thread> threads_;
};

}  // namespace veld_report::server
