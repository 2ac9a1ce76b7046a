// ReportServer: receives signed report messages over HTTP, checks every layer and stores the items in a sink.
//
// It isn't for querying what was stored; that is the sinks' business (record_sink.h). A message is answered
// 200 only once its items are on the disk. So a sender may drop what was answered, whenever this process is
// killed.
//
// Answers: 200 stored; 400 the request's frame (framing_check.h) or the body doesn't pass, with a sentence
// that says why; 405 not a POST; 413 the body is over the limit, as it arrives or decoded (body_decoder.h);
// 415 with Accept-Encoding: its coding isn't known; 429 with Retry-After: too many requests of this client;
// 503 with Retry-After: the sink can't store, too many bodies are arriving at once, or the server is
// stopping. What the HTTP library can't read it answers itself: 400, 413, 414, 431, 505. Anything but 200
// has stored nothing.
//
// The memory that clients can take up is limited, whatever they do (the rules are in connection_watch.h): 32
// KiB for each of `connectionLimit` connections, plus `bodyMemoryBytes`, plus in each of `threads` six times
// `bodyLimitBytes` while a body is checked, or 9 MiB while it is decoded if that is more.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "server/message_check.h"
#include "server/record_sink.h"
#include "server/server_observer.h"

namespace veld_report::server {

struct ReportServerOptions {
  std::string address = "127.0.0.1";  // a numeric address (an IPv6 one without brackets) or a host name
  std::uint16_t port = 0;             // 0: a free one
  // A socket that listens already, for TakeListenSocket (listen_socket.h); then the address may be empty. -1:
  // none.
  int listening = -1;
  // PEM files (tls_certificate.h): then the server speaks TLS. Both or none.
  std::string certificatePath, certificateKeyPath;
  std::vector<SinkOptions> sinks;  // each gets every message (sink_set.h); their `log` is the one below
  SignatureVerifier verifier;      // empty: signatures aren't checked
  // By the "kid" of the signature's header: what sinks get as the key's name. Without one they get the "kid".
  std::map<std::string, std::string> keyNames;
  unsigned status = 200;  // any other: every good message gets this answer and nothing is stored
  std::size_t bodyLimitBytes = std::size_t{16} << 20;
  unsigned threads = 4;
  // When one more connects, one of the client that has most is cut (connection_watch.h). Each takes a file
  // descriptor.
  unsigned connectionLimit = 512;
  unsigned idleTimeoutSeconds = 30;  // of a silent connection
  // For the headers of a request, and again for its body. A request that takes longer is cut.
  std::chrono::milliseconds requestTime{60'000};
  // For all bodies in transit. Raised to four times `bodyLimitBytes` if it is less.
  std::size_t bodyMemoryBytes = std::size_t{256} << 20;
  // Requests of one client address (rate_limit.h): how many a second, and at once; 0: no limit.
  double rate = 0, rateBurst = 0;
  // After a sink has failed. Then it may be tried again: somebody who sends nothing to a server that isn't
  // ready would otherwise never find out that the sink is back.
  std::chrono::milliseconds unreadyTime{10'000};
  std::string capturePath;  // folder for the bodies of refused messages (body_capture.h); empty: none
  // Hears of each request; null: nobody does. It must outlive the server.
  ServerObserver* observer = nullptr;
  // Called with one line for each rejected message and each failure, on the server's threads.
  std::function<void(const std::string&)> log;
};

// What a server has in hand at a moment, beside its limits.
struct ServerLoad {
  std::size_t connections, connectionLimit;
  std::size_t bodyBytes, bodyMemoryBytes;  // of bodies in transit
  bool sinkFails;                          // a sink couldn't store the latest message that it got
  bool sinkFailedLately;                   // and that was within ReportServerOptions::unreadyTime
  bool stopping;
};

// Life: listens from the constructor's return to Stop or the destructor. It can't be started again.
class ReportServer {
 public:
  // Throws std::runtime_error with a sentence: the file can't be opened, or the address can't be listened on.
  explicit ReportServer(ReportServerOptions options);
  ~ReportServer();
  ReportServer(const ReportServer&) = delete;
  ReportServer& operator=(const ReportServer&) = delete;

  bool HasCertificate() const;  // TlsCertificate::Callback has one then
  std::uint16_t Port() const;
  // "http://127.0.0.1:4711", with the actual port; with a certificate "https://...".
  std::string Url() const;
  std::uint64_t StoredItems() const;
  // Records that the sink had already.
  std::uint64_t RepeatedItems() const;
  std::uint64_t RefusedRequests() const;
  // Connections that the server has closed by itself (CutReason).
  std::uint64_t CutConnections() const;
  // Threads: any, also during Stop.
  ServerLoad Load() const;

  // Reads the certificate again, if there is one. The log hears what came of it. Threads: any.
  void ReloadCertificate();
  // SinkSet::Reopen. Threads: any.
  void ReopenSinks();

  // Accepts no more connections, answers the requests that have begun, waiting up to five seconds for their
  // bodies, and further ones of the same connections 503. Returns once no thread of the server runs. Not to
  // be called on one of the server's threads. A second call does nothing.
  void Stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace veld_report::server
