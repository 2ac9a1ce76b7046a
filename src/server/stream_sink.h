// StreamSink: a RecordSink that puts packets into a JetStream stream, for StreamDrain or anybody else to take
// out. It keeps no state, so any number of servers write to one stream.
//
// A packet is stored when the stream has acknowledged it: a majority of its replicas has it then, though
// their machines may not have synced it to their disks yet. The stream remembers a packet for its duplicates
// window and doesn't store it again (PacketId); records that come again in another packet are for the sink
// behind StreamDrain to recognise. Packets of several threads are on their way together.
//
// If no broker can be reached, Store fails at once, and so does one in progress. The stream is made at the
// start, or once a broker is there.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "server/record_sink.h"
#include "server/stream_link.h"

namespace veld_report::server {

// Threads: any, for all operations.
class StreamSink final : public RecordSink {
 public:
  // Throws std::invalid_argument for a wrong url, and StreamError if the stream isn't as it must be. If it
  // can't be told yet, the log has a sentence.
  explicit StreamSink(const SinkOptions& options);

  StoreResult Store(const SinkPacket& packet) override;
  // Does nothing: the connection keeps itself up.
  void Reopen() override {}
  std::size_t MaxPacketBytes() const override;

 private:
  // Throws StreamError. Asks the brokers until the streams were seen once.
  void RequireStreams();

  const std::function<void(const std::string&)> log_;
  StreamLink link_;
  const std::vector<std::string> streams_;
  std::atomic<bool> areKnown_{false};  // only spares a question to the brokers
  std::mutex mutex_;                   // held while the streams are asked for; guards `askAgain_`
  std::chrono::steady_clock::time_point askAgain_{};
};

// The subject that packets of a url have below their stream, and so their partition: one of 256, in two
// hexadecimal digits. Whoever names urls can't make more of them.
std::string BucketOf(std::string_view url, unsigned* number);

}  // namespace veld_report::server
