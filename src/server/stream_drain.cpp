#include "server/stream_drain.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "server/stream_message.h"

namespace veld_report::server {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int batchSize = 32;
constexpr milliseconds fetchTime{500};
constexpr milliseconds retryPause{500};
// The brokers give a packet to another drain if they hear nothing of it for so long.
constexpr std::chrono::seconds acknowledgeWithin{5};
constexpr std::chrono::seconds tellEvery{1};

// Somebody else's, of another kind.
class WrongConsumer : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

}  // namespace

// One thread's subscription and the messages that it holds. Threads: the one.
class StreamDrain::Reader {
 public:
  // Makes the consumer unless it exists. Throws StreamError and WrongConsumer.
  Reader(const StreamLink& link, const std::string& stream, const std::string& consumer)
      : link_(link), stream_(stream) {
    link.RequireConnection();
    jsErrCode code{};
    jsConsumerInfo* raw = nullptr;
    natsStatus status =
        js_GetConsumerInfo(&raw, link.Context(), stream.c_str(), consumer.c_str(), nullptr, &code);
    if (status == NATS_NOT_FOUND) {
      jsConsumerConfig config;
      jsConsumerConfig_Init(&config);
      config.Durable = consumer.c_str();
      config.AckPolicy = js_AckExplicit;
      config.AckWait = std::chrono::nanoseconds(acknowledgeWithin).count();
      config.MaxAckPending = 4096;
      status = js_AddConsumer(&raw, link.Context(), stream.c_str(), &config, nullptr, &code);
    }
    if (status != NATS_OK) link.Fail("can't read the stream " + stream, status, code);
    const bool isRight = !raw->Config->DeliverSubject && raw->Config->AckPolicy == js_AckExplicit;
    jsConsumerInfo_Destroy(raw);
    if (!isRight)
      throw WrongConsumer(link.Url().Name() + ": the consumer " + consumer + " of the stream " + stream +
                          " isn't a pull consumer with explicit acknowledgements");
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream.c_str();
    options.Consumer = consumer.c_str();
    status =
        js_PullSubscribe(&subscription_, link.Context(), nullptr, consumer.c_str(), nullptr, &options, &code);
    if (status != NATS_OK) link.Fail("can't read the stream " + stream, status, code);
  }
  ~Reader() {
    Drop();
    natsSubscription_Destroy(subscription_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Waits for messages and returns how many came. Throws StreamError.
  std::size_t Fetch() {
    Drop();
    link_.RequireConnection();
    jsErrCode code{};
    const natsStatus status =
        natsSubscription_Fetch(&messages_, subscription_, batchSize, fetchTime.count(), &code);
    told_ = steady_clock::now();
    if (status != NATS_OK && status != NATS_TIMEOUT)
      link_.Fail("can't read the stream " + stream_, status, code);
    return static_cast<std::size_t>(messages_.Count);
  }
  natsMsg* Message(std::size_t index) const { return messages_.Msgs[index]; }
  std::string NameOf(std::size_t index) const {
    jsMsgMetaData* data = nullptr;
    if (natsMsg_GetMetaData(&data, Message(index)) != NATS_OK) return "a message of " + stream_;
    std::string name = "message " + std::to_string(data->Sequence.Stream) + " of " + stream_;
    jsMsgMetaData_Destroy(data);
    return name;
  }
  // Tells the brokers from time to time that the messages which aren't done with are being worked on.
  void TellProgress() {
    if (steady_clock::now() - told_ < tellEvery) return;
    told_ = steady_clock::now();
    for (std::size_t i = done_; i < static_cast<std::size_t>(messages_.Count); ++i)
      natsMsg_InProgress(Message(i), nullptr);
  }
  void SetDone(std::size_t count) { done_ = count; }

 private:
  // Returns what isn't done with to the stream, for any drain to take at once.
  void Drop() {
    for (std::size_t i = done_; i < static_cast<std::size_t>(messages_.Count); ++i)
      natsMsg_Nak(Message(i), nullptr);
    natsMsgList_Destroy(&messages_);
    messages_ = {};
    done_ = 0;
  }

  const StreamLink& link_;
  const std::string stream_;
  natsSubscription* subscription_ = nullptr;
  natsMsgList messages_{};
  std::size_t done_ = 0;  // so many at the front are acknowledged or terminated
  Time told_{};
};

StreamDrain::StreamDrain(DrainOptions options)
    : options_(std::move(options)),
      sinks_(options_.sinks, options_.log, "packets wait in the stream"),
      link_(options_.from) {
  const std::vector<std::string> streams = options_.from.Streams();
  const std::size_t count = std::max<std::size_t>(options_.threads, streams.size());
  try {
    for (std::size_t i = 0; i < count; ++i)
      threads_.emplace_back([this, stream = streams[i % streams.size()]] { Work(stream); });
  } catch (...) {
    Stop();
    throw;
  }
}

StreamDrain::~StreamDrain() { Stop(); }

void StreamDrain::Stop() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    stopDeadline_ = steady_clock::now() + stopPatience;
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
  link_.Flush();
}

void StreamDrain::Work(const std::string& stream) {
  const auto goesOn = [this] {
    const std::lock_guard lock(mutex_);
    return !stopping_ && !ended_;
  };
  while (goesOn()) {
    try {
      Reader reader(link_, stream, options_.consumer);
      while (goesOn()) {
        const std::size_t count = reader.Fetch();
        ReadingWorks();
        if (count == 0) EndIfIdle();
        for (std::size_t i = 0; i < count && Deliver(reader, i); ++i) reader.SetDone(i + 1);
      }
    } catch (const WrongConsumer& error) {
      End(error.what());
    } catch (const StreamError& error) {
      ReadingFails(error.what());
    } catch (const std::exception& error) {
      ReadingFails(std::string("can't go on: ") + error.what());
    }
    Pause(retryPause);
  }
  nats_ReleaseThreadMemory();
}

bool StreamDrain::Deliver(Reader& reader, std::size_t index) {
  {
    const std::lock_guard lock(mutex_);
    latest_ = steady_clock::now();
  }
  ReceivedPacket received;
  ReadMessage(reader.Message(index), &received);
  if (!received.problem.empty()) {
    natsMsg_Term(reader.Message(index), nullptr);
    ++terminated_;
    Say(reader.NameOf(index) + " isn't a packet and is taken out for good: " + received.problem);
    return true;
  }
  if (!StoreWhole(reader, received.packet)) return false;
  natsMsg_Ack(reader.Message(index), nullptr);
  return true;
}

bool StreamDrain::StoreWhole(Reader& reader, const SinkPacket& packet) {
  for (;;) {
    reader.TellProgress();
    {
      const std::lock_guard lock(mutex_);
      if (ended_ || (stopping_ && steady_clock::now() > stopDeadline_)) return false;
    }
    try {
      const StoreResult result = sinks_.Store(packet);
      stored_ += result.stored;
      repeated_ += result.repeated;
      return true;
    } catch (const PacketTooLarge& error) {
      End(error.what());
      return false;
    } catch (const std::runtime_error&) {
      // The set of sinks has logged it.
    }
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) return false;
      latest_ = steady_clock::now();
    }
    Pause(retryPause);
  }
}

void StreamDrain::ReadingFails(const std::string& sentence) {
  bool isFirst = false;
  {
    const std::lock_guard lock(mutex_);
    isFirst = !std::exchange(readingFails_, true);
    latest_ = steady_clock::now();
  }
  if (isFirst) Say(sentence + "; trying on");
}

void StreamDrain::ReadingWorks() {
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(readingFails_, false)) return;
  }
  Say(options_.from.Name() + ": packets are read again");
}

void StreamDrain::EndIfIdle() {
  if (options_.idle.count() == 0) return;
  {
    const std::lock_guard lock(mutex_);
    if (steady_clock::now() - latest_ < options_.idle) return;
  }
  if (IsAllDone()) End("");
}

bool StreamDrain::IsAllDone() const {
  const auto isDone = [this](const std::string& stream) {
    jsConsumerInfo* raw = nullptr;
    if (js_GetConsumerInfo(&raw, link_.Context(), stream.c_str(), options_.consumer.c_str(), nullptr,
                           nullptr) != NATS_OK)
      return false;
    const bool none = raw->NumPending == 0 && raw->NumAckPending == 0;
    jsConsumerInfo_Destroy(raw);
    return none;
  };
  const std::vector<std::string> streams = options_.from.Streams();
  return std::all_of(streams.begin(), streams.end(), isDone);
}

void StreamDrain::End(const std::string& failure) {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(ended_, true) || stopping_) return;
    failure_ = failure;
  }
  changed_.notify_all();
  if (options_.onEnd) options_.onEnd();
}

void StreamDrain::Pause(milliseconds time) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, time, [this] { return stopping_ || ended_; });
}

void StreamDrain::Say(const std::string& sentence) const {
  if (options_.log) options_.log(sentence);
}

}  // namespace veld_report::server
