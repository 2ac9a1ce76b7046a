// EventStream: server-sent events on their way to one reader, and StreamHub, all that are open.
//
// A reader that doesn't keep up loses events rather than holding memory: 1 MiB may wait for each. It is then
// told how many it missed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "server/page/record_filter.h"

namespace veld_report::server {

// Threads: any.
class EventStream {
 public:
  static constexpr std::size_t maxWaitingBytes = std::size_t{1} << 20;
  enum class State { data, empty, ended };

  explicit EventStream(RecordFilter filter) : filter_(std::move(filter)) {}

  const RecordFilter& Filter() const { return filter_; }
  // `event`: a name of the page's own. `data`: one line.
  void Push(std::string_view event, std::string_view data);
  std::uint64_t Missed() const;
  // No more events; what waits is dropped.
  void End();

  // Moves up to `room` bytes to `to`. If nothing waits it calls `park`, with the stream locked, and `wake` is
  // called once there is something.
  State Read(char* to, std::size_t room, std::size_t* read, const std::function<void()>& park,
             std::function<void()> wake);
  // From its return on no `wake` is called.
  void Close();

 private:
  void Wake();

  const RecordFilter filter_;
  mutable std::mutex mutex_;  // guards the members below; held during `park` and `wake`
  std::string waiting_;
  std::uint64_t missed_ = 0;
  bool ended_ = false;
  std::function<void()> wake_;
};

// Threads: any.
class StreamHub {
 public:
  static constexpr std::size_t maxStreams = 16;

  // Null if there are too many already, or the hub has ended.
  std::shared_ptr<EventStream> Open(RecordFilter filter);
  void Close(const std::shared_ptr<EventStream>& stream);
  std::vector<std::shared_ptr<EventStream>> Streams() const;
  // Ends all streams, and refuses new ones.
  void End();

 private:
  mutable std::mutex mutex_;  // guards the members below
  std::vector<std::shared_ptr<EventStream>> streams_;
  bool ended_ = false;
};

}  // namespace veld_report::server
