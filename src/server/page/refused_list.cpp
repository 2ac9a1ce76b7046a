#include "server/page/refused_list.h"

namespace veld_report::server {
namespace {

constexpr std::size_t maxTextBytes = 1024;  // of each text that a client had a part in

std::string Short(std::string_view text) { return std::string(text.substr(0, maxTextBytes)); }

}  // namespace

bool RefusedList::MayTake(std::chrono::system_clock::time_point time) {
  const std::lock_guard lock(mutex_);
  const auto second = std::chrono::floor<std::chrono::seconds>(time);
  if (second != second_) inSecond_ = 0;
  second_ = second;
  return ++inSecond_ <= maxInASecond;
}

void RefusedList::Add(const ObservedRequest& request, const RefusedMessage& message) {
  const auto now = std::chrono::system_clock::now();
  if (!MayTake(now)) return;
  const std::size_t size = request.body.size();
  RefusedRequest added{0,
                       now,
                       Short(request.host),
                       Short(request.path),
                       Short(request.peer),
                       Short(message.sentence),
                       message.status,
                       message.reason,
                       size};
  // Copied before the lock is taken.
  if (size != 0 && size <= maxBodyBytes) added.body = std::make_shared<std::string>(request.body);
  const std::lock_guard lock(mutex_);
  added.number = ++added_;
  if (added.body) bytes_ += size;
  requests_.push_back(std::move(added));
  if (requests_.size() > maxRequests) {
    if (requests_.front().body) bytes_ -= requests_.front().bodyBytes;
    requests_.pop_front();
  }
  for (RefusedRequest& oldest : requests_) {
    if (bytes_ <= maxBytes) break;
    if (oldest.body) bytes_ -= oldest.bodyBytes;
    oldest.body = nullptr;
  }
}

std::vector<RefusedRequest> RefusedList::Latest() const {
  const std::lock_guard lock(mutex_);
  return {requests_.rbegin(), requests_.rend()};
}

std::shared_ptr<const std::string> RefusedList::Body(std::uint64_t number) const {
  const std::lock_guard lock(mutex_);
  for (const RefusedRequest& each : requests_) {
    if (each.number == number) return each.body;
  }
  return nullptr;
}

}  // namespace veld_report::server
