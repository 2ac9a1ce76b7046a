#include "server/page/event_stream.h"

#include <utility>

namespace veld_report::server {

void EventStream::Push(std::string_view event, std::string_view data) {
  const std::lock_guard lock(mutex_);
  if (ended_) return;
  if (waiting_.size() + data.size() > maxWaitingBytes) {
    ++missed_;
    return;
  }
  waiting_.append("event: ").append(event).append("\ndata: ").append(data).append("\n\n");
  Wake();
}

std::uint64_t EventStream::Missed() const {
  const std::lock_guard lock(mutex_);
  return missed_;
}

void EventStream::End() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  waiting_.clear();
  Wake();
}

EventStream::State EventStream::Read(char* to, std::size_t room, std::size_t* read,
                                     const std::function<void()>& park, std::function<void()> wake) {
  const std::lock_guard lock(mutex_);
  if (ended_) return State::ended;
  if (waiting_.empty()) {
    park();
    wake_ = std::move(wake);
    return State::empty;
  }
  *read = waiting_.copy(to, room);
  waiting_.erase(0, *read);
  return State::data;
}

void EventStream::Close() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  wake_ = nullptr;
}

void EventStream::Wake() {
  if (const auto wake = std::exchange(wake_, nullptr)) wake();
}

std::shared_ptr<EventStream> StreamHub::Open(RecordFilter filter) {
  const std::lock_guard lock(mutex_);
  if (ended_ || streams_.size() == maxStreams) return nullptr;
  return streams_.emplace_back(std::make_shared<EventStream>(std::move(filter)));
}

void StreamHub::Close(const std::shared_ptr<EventStream>& stream) {
  stream->Close();
  const std::lock_guard lock(mutex_);
  std::erase(streams_, stream);
}

std::vector<std::shared_ptr<EventStream>> StreamHub::Streams() const {
  const std::lock_guard lock(mutex_);
  return streams_;
}

void StreamHub::End() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  for (const auto& stream : streams_) stream->End();
}

}  // namespace veld_report::server
