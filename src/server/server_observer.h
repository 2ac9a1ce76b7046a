// ServerObserver: learns what a ReportServer did with each request, for figures and for a page to look at.
//
// It differs from the log in that it hears of what went well too, and from a sink in that nothing depends on
// it: the answer is the same with it, without it and whatever becomes of it.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "server/message_check.h"
#include "server/record_sink.h"
#include "server/refusal_reason.h"

namespace veld_report::server {

// Refers to memory that lasts until the call returns.
struct ObservedRequest {
  std::string_view host;  // as the client sent it; empty: none
  std::string_view path;
  std::string_view peer;  // "127.0.0.1:4711"
  std::string_view body;  // as far as it was kept
};

struct StoredMessage {
  const MessageContent& content;
  std::string_view keyName;
  StoreResult result;
  std::chrono::nanoseconds sinkTime;  // how long the sink took
};

struct RefusedMessage {
  unsigned status;  // 0: the connection was closed without an answer
  RefusalReason reason;
  std::string_view sentence;
};

// They are called before the answer is sent, so they must be quick and wait for nothing.
// Threads: any, several at once.
class ServerObserver {
 public:
  virtual ~ServerObserver() = default;
  virtual void OnStored(const ObservedRequest& request, const StoredMessage& message) noexcept = 0;
  virtual void OnRefused(const ObservedRequest& request, const RefusedMessage& message) noexcept = 0;
  virtual void OnCut(CutReason reason) noexcept = 0;
};

}  // namespace veld_report::server
