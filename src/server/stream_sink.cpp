#include "server/stream_sink.h"

#include <chrono>
#include <cstdio>
#include <limits>
#include <memory>

#include "server/stream_message.h"

namespace veld_report::server {
namespace {

constexpr std::chrono::seconds askEvery{5};

}  // namespace

std::string BucketOf(std::string_view url, unsigned* number) {
  // FNV-1a.
  std::uint32_t hash = 2'166'136'261;
  for (const char each : url) hash = (hash ^ static_cast<unsigned char>(each)) * 16'777'619;
  *number = (hash ^ hash >> 8 ^ hash >> 16 ^ hash >> 24) & 255;
  char text[3];
  std::snprintf(text, sizeof text, "%02x", *number);
  return text;
}

StreamSink::StreamSink(const SinkOptions& options)
    : log_(options.log), link_(ReadStreamUrl(options.out)), streams_(link_.Url().Streams()) {
  try {
    RequireStreams();
  } catch (const StreamError& error) {
    if (!error.WillPass()) throw;
    if (log_) log_(std::string(error.what()) + "; trying on");
  }
}

StoreResult StreamSink::Store(const SinkPacket& packet) {
  link_.RequireConnection();
  RequireStreams();
  unsigned bucket = 0;
  const std::string name = BucketOf(packet.url, &bucket);
  const std::string& stream = streams_[bucket % streams_.size()];
  std::size_t count = 0;
  const NatsMessage message = MakeMessage(stream + "." + name, PacketId(packet, &count), packet);

  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MaxWait = StreamLink::patience.count();
  options.ExpectStream = stream.c_str();
  jsPubAck* raw = nullptr;
  jsErrCode code{};
  const natsStatus status = js_PublishMsg(&raw, link_.Context(), message.get(), &options, &code);
  const std::unique_ptr<jsPubAck, decltype(&jsPubAck_Destroy)> acknowledgement(raw, &jsPubAck_Destroy);
  if (status == NATS_NO_RESPONDERS) {
    // No leader at present, or somebody has removed it. To ask takes time, so that is for one call in a
    // while.
    const auto now = std::chrono::steady_clock::now();
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (lock && now >= askAgain_) {
      areKnown_ = false;
      askAgain_ = now + askEvery;
    }
    throw StreamError(link_.Url().Name() + ": the stream " + stream + " has no leader at present", true);
  }
  if (status != NATS_OK) link_.Fail("the stream " + stream + " doesn't acknowledge", status, code);
  return acknowledgement->Duplicate ? StoreResult{0, count} : StoreResult{count, 0};
}

std::size_t StreamSink::MaxPacketBytes() const {
  const std::size_t bytes = link_.MaxMessageBytes();
  return bytes > maxHeaderBytes ? bytes - maxHeaderBytes : std::numeric_limits<std::size_t>::max();
}

void StreamSink::RequireStreams() {
  if (areKnown_) return;
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) throw StreamError(link_.Url().Name() + ": the stream is being looked for", true);
  for (const std::string& stream : streams_) {
    const std::string surprise = link_.RequireStream(stream);
    if (!surprise.empty() && log_) log_(surprise);
  }
  areKnown_ = true;
}

}  // namespace veld_report::server
