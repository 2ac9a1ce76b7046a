#include "server/page/intake.h"

#include <algorithm>

namespace veld_report::server {
namespace {

constexpr std::size_t maxNameBytes = 512;  // of each text that a client chose

std::string Short(std::string_view text) { return std::string(text.substr(0, maxNameBytes)); }

// The first `count` lines and their number; fewer if they would exceed `bytes`.
struct FirstLines {
  std::string_view text;
  std::size_t count = 0;
};
FirstLines Lines(std::string_view lines, std::size_t count, std::size_t bytes) {
  FirstLines result;
  std::size_t end = 0;
  while (result.count < count) {
    const std::size_t next = lines.find('\n', end);
    if (next == std::string_view::npos || next + 1 > bytes) break;
    end = next + 1;
    ++result.count;
  }
  result.text = lines.substr(0, end);
  return result;
}

}  // namespace

std::size_t Intake::Offer(const ObservedRequest& request, const StoredMessage& message) {
  const MessageContent& content = message.content;
  const std::lock_guard lock(mutex_);
  ++messages_;
  const bool crowded = records_ > maxRecords / 2 || bytes_ > maxBytes / 2;
  const std::size_t wanted = std::min(crowded ? 1 : maxRecordsOfPacket, maxRecords - records_);
  const FirstLines first = Lines(content.itemLines, wanted, maxBytes - bytes_);
  if (first.count == 0) return content.itemCount;
  const auto packet = std::make_shared<ShownPacket>();
  packet->number = messages_;
  packet->time = std::chrono::system_clock::now();
  packet->host = Short(request.host);
  packet->path = Short(request.path);
  packet->peer = request.peer;
  packet->keyName = Short(message.keyName);
  packet->signatureHeader = Short(content.signatureHeader);
  packet->signatureIsEmpty = content.signature.empty();
  packet->signatureChecked = content.signatureChecked;
  packet->records = content.itemCount;
  packet->stored = message.result.stored;
  packet->repeated = message.result.repeated;
  packet->bodyBytes = request.body.size();
  packet->sinkTime = message.sinkTime;
  waiting_.push_back({packet, std::string(first.text)});
  records_ += first.count;
  bytes_ += first.text.size();
  return content.itemCount - first.count;
}

std::vector<TakenMessage> Intake::Take() {
  std::vector<TakenMessage> taken;
  const std::lock_guard lock(mutex_);
  taken.swap(waiting_);
  records_ = bytes_ = 0;
  return taken;
}

}  // namespace veld_report::server
