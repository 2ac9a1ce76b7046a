#include "server/sink_set.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "server/open_sink.h"

namespace veld_report::server {

SinkSet::SinkSet(std::vector<SinkOptions> sinks, Log log, std::string meanwhile)
    : log_(std::move(log)), meanwhile_(std::move(meanwhile)) {
  for (SinkOptions& options : sinks) {
    const auto isSame = [&](const auto& member) { return member->out == options.out; };
    if (std::any_of(members_.begin(), members_.end(), isSame))
      throw std::runtime_error(DisplayName(options.out) + " is given twice");
    options.log = log_;
    auto member = std::make_unique<Member>();
    member->out = options.out;
    member->sink = OpenSink(options);
    members_.push_back(std::move(member));
  }
}

StoreResult SinkSet::Store(const SinkPacket& packet) {
  std::string least;
  const std::size_t maxBytes = MaxPacketBytes(&least);
  if (packet.lines.size() > maxBytes)
    throw PacketTooLarge(least + ": the records of the message have " + std::to_string(packet.lines.size()) +
                         " bytes; at most " + std::to_string(maxBytes) + " can be stored");
  StoreResult most;
  std::vector<Member*> order;
  for (const auto& member : members_) order.push_back(member.get());
  std::stable_partition(order.begin(), order.end(),
                        [](const Member* member) { return member->fails.load(); });
  for (std::size_t i = 0; i < order.size(); ++i) {
    const StoreResult result = StoreIn(*order[i], packet);
    if (i == 0 || result.stored > most.stored) most = result;
  }
  return most;
}

StoreResult SinkSet::StoreIn(Member& member, const SinkPacket& packet) {
  try {
    const StoreResult result = member.sink->Store(packet);
    if (member.fails.exchange(false)) Say(DisplayName(member.out) + ": records are stored again");
    return result;
  } catch (const std::runtime_error& error) {
    member.failedAt = std::chrono::steady_clock::now().time_since_epoch().count();
    // Once: senders try again and again.
    if (!member.fails.exchange(true))
      Say(std::string(error.what()) + "; " + meanwhile_ + " until records can be stored again");
    throw;
  }
}

void SinkSet::Reopen() {
  for (const auto& member : members_) {
    try {
      member->sink->Reopen();
    } catch (const std::runtime_error& error) {
      Say(error.what());
    }
  }
}

std::size_t SinkSet::MaxPacketBytes(std::string* name) const {
  std::size_t least = std::numeric_limits<std::size_t>::max();
  for (const auto& member : members_) {
    const std::size_t bytes = member->sink->MaxPacketBytes();
    if (bytes >= least) continue;
    least = bytes;
    if (name) *name = DisplayName(member->out);
  }
  return least;
}

bool SinkSet::IsFailing(std::optional<std::chrono::milliseconds> within) const {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  return std::any_of(members_.begin(), members_.end(), [&](const auto& member) {
    return member->fails.load() &&
           (!within || now - Clock::time_point(Clock::duration(member->failedAt)) < *within);
  });
}

void SinkSet::Say(const std::string& sentence) const {
  if (log_) log_(sentence);
}

}  // namespace veld_report::server
