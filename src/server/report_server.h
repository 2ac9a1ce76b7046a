// ReportServer: takes signed report messages over HTTP, checks them in every layer and keeps their items in a
// file.
//
// For trials, tests and small installations: one file, no TLS (put a proxy in front for that), no look-up of
// what was stored. A message is answered 200 only when its items are on the disk, so a sender that drops what
// was answered loses nothing, whenever this process is killed.
//
// Answers: 200 stored; 400 the body doesn't pass, with a sentence of why; 405 not a POST; 413 the body is
// over the limit; 500 the file can't be written, with a sentence; 503 too many bodies are arriving at once.
// Whatever isn't 200 has stored nothing.
//
// What clients can make it hold is bounded, whatever they do (connection_watch.h has the rules): 32 KiB for
// each of `connectionLimit` connections, `bodyMemoryBytes`, and while a body is checked, in each of
// `threads`, six times `bodyLimitBytes`.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "server/message_check.h"

namespace veld_report::server {

struct ReportServerOptions {
  std::string address = "127.0.0.1";  // a numeric address (an IPv6 one without brackets) or a host name
  std::uint16_t port = 0;             // 0: a free one
  std::string outPath;                // the NDJSON file
  SignatureVerifier verifier;         // empty: signatures aren't checked
  unsigned status = 200;              // any other: every good message gets this answer and nothing is stored
  std::size_t bodyLimitBytes = std::size_t{16} << 20;
  unsigned threads = 4;
  // One more, and the connection that has waited longest for the end of its request is cut. Each takes a file
  // descriptor.
  unsigned connectionLimit = 512;
  unsigned idleTimeoutSeconds = 30;  // of a connection on which nothing comes
  // For the headers of a request, and once more for its body; what takes longer is cut.
  std::chrono::milliseconds requestTime{60'000};
  // Of all bodies that are arriving. At least four times `bodyLimitBytes` are taken for it.
  std::size_t bodyMemoryBytes = std::size_t{256} << 20;
  // Hears one line for each refused message and each failure. Called from the server's threads.
  std::function<void(const std::string&)> log;
};

// Life: listening from the constructor's return to Stop or the destructor; not to be started again.
class ReportServer {
 public:
  // Throws std::runtime_error with a sentence: the file can't be had, the address can't be listened on.
  explicit ReportServer(ReportServerOptions options);
  ~ReportServer();
  ReportServer(const ReportServer&) = delete;
  ReportServer& operator=(const ReportServer&) = delete;

  std::uint16_t Port() const;
  // "http://127.0.0.1:4711", with the port that was taken.
  std::string Url() const;
  // What the repair of the file at the start has cut off.
  std::uint64_t TornBytes() const;
  std::uint64_t StoredItems() const;
  std::uint64_t RefusedRequests() const;

  // Takes no more connections, lets the requests that are being served end (for at most two seconds) and
  // returns when no thread of the server runs. Any thread but one of the server's; a second call does
  // nothing.
  void Stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace veld_report::server
