#include "server/connection_watch.h"

#include <sys/socket.h>

#include <algorithm>

#include "server/peer_name.h"

namespace veld_report::server {

namespace {

const char* SentenceOf(CutReason why) {
  switch (why) {
    case CutReason::connections:
      return "too many connections";
    case CutReason::time:
      return "its request took too long";
    case CutReason::memory:
      return "too much memory is in unfinished bodies";
    case CutReason::tls:
      break;
  }
  return "no agreement on TLS";
}

}  // namespace

ConnectionWatch::ConnectionWatch(const ConnectionLimits& limits, OnCut onCut)
    : limits_(limits), onCut_(std::move(onCut)), thread_([this] { CutOverdue(); }) {}

ConnectionWatch::~ConnectionWatch() {
  {
    const Lock lock(mutex_);
    ended_ = true;
  }
  ending_.notify_all();
  thread_.join();
}

ConnectionWatch::Connection* ConnectionWatch::Opened(int socket) {
  sockaddr_storage peer{};
  socklen_t size = sizeof peer;
  auto* const generic = reinterpret_cast<sockaddr*>(&peer);
  std::string address = ClientAddress(getpeername(socket, generic, &size) == 0 ? generic : nullptr);
  const Lock lock(mutex_);
  ++byAddress_[address];
  Connection& opened =
      connections_.emplace_back(Connection{socket, std::move(address), std::chrono::steady_clock::now()});
  ++uncut_;
  if (uncut_ > limits_.connections) CutOfMost(&opened);
  return &opened;
}

void ConnectionWatch::Closed(Connection* connection) {
  Ended(connection);
  const Lock lock(mutex_);
  if (!connection->cut) CountOut(*connection);
  connections_.remove_if([&](const Connection& each) { return &each == connection; });
}

void ConnectionWatch::BodyBegins(Connection* connection) {
  const Lock lock(mutex_);
  connection->since = std::chrono::steady_clock::now();
}

bool ConnectionWatch::Hold(Connection* connection, std::size_t bodyBytes) {
  const Lock lock(mutex_);
  const std::size_t more = bodyBytes - std::min(bodyBytes, connection->bodyBytes);
  const std::size_t limit = bodyBytes <= firstPieceBytes ? limits_.bodyBytes : limits_.bodyBytes / 8 * 7;
  if (connection->cut || more > limit - std::min(bodyBytes_, limit)) return false;
  bodyBytes_ += more;
  uncutBodyBytes_ += more;
  connection->bodyBytes += more;
  while (uncutBodyBytes_ > limits_.bodyBytes / 4 * 3) {
    if (!CutLongest(connection, CutReason::memory)) break;
  }
  return true;
}

bool ConnectionWatch::Arrived(Connection* connection) {
  const Lock lock(mutex_);
  connection->arrived = true;
  return !connection->cut;
}

bool ConnectionWatch::IsCut(const Connection* connection) {
  const Lock lock(mutex_);
  return connection->cut;
}

ConnectionWatch::Load ConnectionWatch::CurrentLoad() {
  const Lock lock(mutex_);
  return {uncut_, bodyBytes_};
}

void ConnectionWatch::Ended(Connection* connection) {
  const Lock lock(mutex_);
  bodyBytes_ -= connection->bodyBytes;
  if (!connection->cut) uncutBodyBytes_ -= connection->bodyBytes;
  connection->bodyBytes = 0;
  connection->arrived = false;
  connection->since = std::chrono::steady_clock::now();
}

void ConnectionWatch::CutOverdue() {
  Lock lock(mutex_);
  const auto step = std::clamp<std::chrono::milliseconds>(
      limits_.requestTime / 4, std::chrono::milliseconds(10), std::chrono::seconds(1));
  while (!ending_.wait_for(lock, step, [this] { return ended_; })) {
    const auto latest = std::chrono::steady_clock::now() - limits_.requestTime;
    for (Connection& each : connections_) {
      if (each.since < latest && !each.arrived && !each.cut) Cut(each, CutReason::time);
    }
  }
}

void ConnectionWatch::CutOfMost(const Connection* besides) {
  const auto most = std::max_element(byAddress_.begin(), byAddress_.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; });
  if (!CutLongest(besides, CutReason::connections, &most->first)) CutLongest(besides, CutReason::connections);
}

bool ConnectionWatch::CutLongest(const Connection* besides, CutReason why, const std::string* address) {
  const bool withBody = why == CutReason::memory;
  Connection* longest = nullptr;
  for (Connection& each : connections_) {
    if (&each == besides || each.cut || each.arrived || (withBody && each.bodyBytes == 0)) continue;
    if (address && each.address != *address) continue;
    if (!longest || each.since < longest->since) longest = &each;
  }
  if (longest) Cut(*longest, why);
  return longest != nullptr;
}

void ConnectionWatch::Cut(Connection& connection, CutReason why) {
  connection.cut = true;
  CountOut(connection);
  uncutBodyBytes_ -= connection.bodyBytes;
  shutdown(connection.socket, SHUT_RDWR);
  Tell(connection.address, why);
}

void ConnectionWatch::Tell(const std::string& address, CutReason why) const {
  if (onCut_) onCut_(why, address + ": connection closed: " + SentenceOf(why));
}

void ConnectionWatch::CountOut(const Connection& connection) {
  --uncut_;
  const auto counted = byAddress_.find(connection.address);
  if (--counted->second == 0) byAddress_.erase(counted);
}

}  // namespace veld_report::server
