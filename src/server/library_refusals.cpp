#include "server/library_refusals.h"

#include <microhttpd.h>

#include <charconv>
#include <string_view>
#include <utility>

namespace veld_report::server {
namespace {

// The library's sentences are for its developers; the status says enough.
std::string SentenceOf(unsigned status) {
  const std::string begin = "the request can't be read: ";
  switch (status) {
    case MHD_HTTP_URI_TOO_LONG:
      return begin + "its first line is too long";
    case MHD_HTTP_REQUEST_HEADER_FIELDS_TOO_LARGE:
      return begin + "its headers are too large";
    case MHD_HTTP_CONTENT_TOO_LARGE:
      return begin + "its length is beyond all numbers";
    case MHD_HTTP_HTTP_VERSION_NOT_SUPPORTED:
      return begin + "only HTTP/1.1 and 1.0 are spoken here";
    default:
      return begin + "it isn't HTTP as it must be";
  }
}

}  // namespace

const LibraryRefusal LibraryRefusals::noRequest{0, false, SentenceOf(0)};

void LibraryRefusals::Note(const char* line) {
  static constexpr std::string_view beforeStatus = "Error processing request (HTTP response code is ";
  const std::string_view text(line);
  LibraryRefusal refusal;
  // A strange sentence, but the library has it for every handshake that fails, and for nothing else.
  refusal.isTls = text.find("handshake message out of context") != std::string_view::npos;
  if (!refusal.isTls) {
    if (!text.starts_with(beforeStatus)) return;
    const char* const status = text.data() + beforeStatus.size();
    if (std::from_chars(status, text.data() + text.size(), refusal.status).ec != std::errc()) return;
  }
  refusal.sentence = SentenceOf(refusal.status);
  const std::lock_guard lock(mutex_);
  waiting_[std::this_thread::get_id()].push_back(std::move(refusal));
  ++count_;
}

std::optional<LibraryRefusal> LibraryRefusals::Take(unsigned status) {
  if (count_ == 0) return std::nullopt;
  const std::lock_guard lock(mutex_);
  const auto own = waiting_.find(std::this_thread::get_id());
  if (own == waiting_.end() || own->second.empty()) return std::nullopt;
  if (status != 0 && own->second.front().status != status) return std::nullopt;
  std::optional<LibraryRefusal> taken(std::move(own->second.front()));
  own->second.pop_front();
  --count_;
  return taken;
}

std::optional<LibraryRefusal> LibraryRefusals::TakeAny() {
  const std::lock_guard lock(mutex_);
  for (auto& [thread, refusals] : waiting_) {
    if (refusals.empty()) continue;
    std::optional<LibraryRefusal> taken(std::move(refusals.front()));
    refusals.pop_front();
    --count_;
    return taken;
  }
  return std::nullopt;
}

}  // namespace veld_report::server
