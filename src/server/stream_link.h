// StreamLink: a connection to the brokers of a JetStream stream that keeps itself up.
//
// It differs from the client library alone in that failures are exceptions with one sentence, that the
// library goes on looking for a broker for ever, and that a call never waits longer than `patience`.
//
// Life: the constructor tries the brokers once and returns, connected or not; from then on the library's
// threads keep the connection up.
// Threads: any, for all operations.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

#include "server/stream_url.h"

namespace veld_report::server {

class StreamError : public std::runtime_error {
 public:
  // `willPass`: a later attempt may succeed without anybody's help.
  StreamError(const std::string& sentence, bool willPass) : runtime_error(sentence), willPass_(willPass) {}
  bool WillPass() const { return willPass_; }

 private:
  bool willPass_;
};

class StreamLink {
 public:
  // Of one request to the brokers.
  static constexpr std::chrono::milliseconds patience{2000};

  // Throws StreamError if no attempt can succeed, say because a host's name isn't one.
  explicit StreamLink(StreamUrl url);
  ~StreamLink();
  StreamLink(const StreamLink&) = delete;
  StreamLink& operator=(const StreamLink&) = delete;

  const StreamUrl& Url() const { return url_; }
  // Throws StreamError, which passes, if no broker is connected. Doesn't wait.
  void RequireConnection() const;
  // The maximum size of a message, headers included; 0 if no broker was connected yet.
  std::size_t MaxMessageBytes() const;
  jsCtx* Context() const { return context_.get(); }

  // Makes the stream unless it exists; one that does must have what the url asks for, store in files and take
  // `<name>.*`. Returns a sentence about what isn't wrong but may surprise; empty if there is nothing. Throws
  // StreamError.
  std::string RequireStream(const std::string& name) const;
  // Waits until everything that was sent has arrived, at most for `patience`.
  void Flush() const noexcept;

  // Throws StreamError with the url, `what` failed and the library's reason.
  [[noreturn]] void Fail(const std::string& what, natsStatus status, int code = 0) const;

 private:
  struct Destroy {
    void operator()(natsConnection* each) const { natsConnection_Destroy(each); }
    void operator()(jsCtx* each) const { jsCtx_Destroy(each); }
  };

  const StreamUrl url_;
  std::string firstFailure_;  // why the first attempt with TLS failed; empty: it didn't
  std::unique_ptr<natsConnection, Destroy> connection_;
  std::unique_ptr<jsCtx, Destroy> context_;
};

}  // namespace veld_report::server
