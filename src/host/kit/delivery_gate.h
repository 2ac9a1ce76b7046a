// DeliveryGate paces a kit's deliveries: no request to a url that is held back, packets of a limited size,
// and an interval between the requests of a queue.
//
// It looks at a queue when the sender's walk gets there, and keeps its items back if their turn hasn't come.
// The walk then goes on with the next queue, while a request that is refused by the HTTP client would end it.
// The sender takes a queue without items for an empty one and doesn't come back by itself. So the gate brings
// the next cycle about when it's time. No cycle runs just to find that it isn't.
//
// If a server refuses a packet because of its content, the gate has the packet divided (refused_items.h).
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/base/clock.h"
#include "host/http/http_client.h"
#include "host/kit/host_kit_options.h"
#include "host/kit/refused_items.h"
#include "host/queue/delivery_pacer.h"
#include "host/services/timer_service.h"

namespace veld_report::host {

// Life: made -> attached -> detached. Only an attached one holds anything back.
// Threads: any.
class DeliveryGate final : public DeliveryPacer {
 public:
  // `clock`: null: the system's.
  explicit DeliveryGate(std::shared_ptr<Clock> clock);

  // Both are borrowed until Detach.
  void Attach(HttpClientFactory* http, TimerService* timer);
  void Detach();
  void SetSettings(const KitSettings& settings);
  // The next cycle may send to every url that isn't held back, whatever the interval.
  void SkipInterval();
  // A request was held back after all, because its url failed since the walk looked.
  void OnBackoff();

  // How long nothing of the url is sent if its queue has so many items; 0: that may happen now.
  std::chrono::milliseconds HeldBackFor(const std::string& url, std::int64_t waitingItems) const;

  std::optional<Allowance> MayDeliver(const std::string& queueName) override;
  void OnPacketEnd(const std::string& queueName, const EndedPacket& packet) override;

 private:
  struct Row {
    std::string url;
    Clock::TimePoint nextStart{};
    RefusedItems refused{};
  };

  void NotePacketEnd(Row& row, const EndedPacket& packet);
  void RunWithin(std::chrono::milliseconds wait);

  const std::shared_ptr<Clock> clock_;

  // Guards the members below. Held across calls of the two, which take locks of their own and no others.
  mutable std::mutex mutex_;
  HttpClientFactory* http_ = nullptr;
  TimerService* timer_ = nullptr;
  std::map<std::string, Row> rows_;  // by the name of the queue
  std::uint64_t packetLimitBytes_ = 0;
  std::chrono::milliseconds sendEvery_{0};
  std::chrono::milliseconds minPause_{0};  // before a cycle that only comes because a wait is over
};

}  // namespace veld_report::host
