// The host kit's HTTP client: IHttpClient on libcurl, which backs off from failing servers.
//
// It differs from calling libcurl in that it is asynchronous, calls exactly one completion per accepted
// request, and holds back requests to a url that asked for that (Retry-After) or keeps failing. It sends
// bodies and reads statuses; it isn't for fetching content, which it discards.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/http.h"
#include "contract/tracer.h"
#include "host/base/clock.h"
#include "host/http/url_codings.h"
#include "types/ref.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

// When requests to a url are held back. The first failure in a row holds back nothing, so a single bad answer
// doesn't affect the next requests. From the second on, the n-th failure draws a wait uniformly from 0 to
// firstDelayMs * 2^(n-2), limited by maxDelayMs. A Retry-After with status 429 or 503 counts from the first
// failure on.
//
// A failure is any end of a request but an answer of 200 or a cancellation: what isn't answered 200 stays in
// its queue, so without a wait the same content would be sent again and again.
struct BackoffOptions {
  bool enabled = true;
  std::uint32_t firstDelayMs = 1000;
  std::uint32_t maxDelayMs = 5 * 60 * 1000;
  std::uint32_t maxRetryAfterMs = 60 * 60 * 1000;
};

struct HttpClientOptions {
  std::uint32_t connectTimeoutMs = 4000;
  // A request ends if fewer bytes than this a second went either way over this time, the wait for the answer
  // included. It is a limit of progress, since a large packet may take minutes on a slow link. Longer than
  // the module's wait for an answer (5 s): a late one still saves the server from getting the packet again.
  std::uint32_t stallBytesPerSecond = 200;
  std::uint32_t stallTimeoutMs = 30000;
  // From the start of a request to the end of its answer.
  std::uint32_t totalTimeoutMs = 15 * 60 * 1000;
  // Sent with every request, each "Name: value", to all urls alike; so not for the secret of one of them.
  std::vector<std::string> headers{};
  std::string userAgent{};  // empty: no header User-Agent
  // If the content of an answer is longer, the request fails.
  std::uint64_t answerLimitBytes = std::uint64_t{1} << 20;
  // No value: the values of http_proxy, https_proxy, all_proxy and no_proxy when the factory was created.
  // Empty: no proxy. Otherwise the proxy's url, for all urls except those of the hosts in `noProxy`
  // (comma-separated).
  std::optional<std::string> proxy{};
  std::string noProxy{};
  // Trusted certificates instead of the system's: a PEM file, and a folder with hashed names. For urls that
  // have no certificates of their own.
  std::string caFile{};
  std::string caDirectory{};
  // Addresses that take precedence over name resolution, each "HOST:PORT:ADDRESS[,ADDRESS]...".
  std::vector<std::string> resolve{};
  BackoffOptions backoff{};
  // Called on a client's thread before a held-back request ends; may be empty. Such a request ends the
  // sender's walk through its queues, and the remaining urls of the walk wait for the next cycle. To avoid
  // that, ask HeldBackFor before a queue is read.
  std::function<void()> onBackoff{};
  // Called by MakeRequestAsync on its caller's thread; returns what is in the request. May be empty.
  std::function<ItemCount()> takeRecords{};
  std::shared_ptr<Clock> clock{};    // for backoff; null: the system's
  std::function<double()> random{};  // uniform in [0, 1), called by one thread at a time; null: the system's
  zel::Ref<zel::ITracer> tracer{};   // may be null; gets a line per failed request, without secrets
};

// The state of a url that has had a request.
struct HttpClientState {
  std::string url{};  // without user and password
  // Until then requests end at once with 0x80000063 "Not ready". Wall-clock time, for people.
  std::optional<std::chrono::system_clock::time_point> waitsUntil{};
  std::string lastError{};       // a sentence; empty after an answer of 200
  std::uint16_t lastStatus = 0;  // of the last answer; 0: none yet
  std::uint32_t failures = 0;    // in a row
};

// What the client knows of a request that is just ending.
struct EndingRequest {
  bool started = false;      // it got as far as the network; false: it was held back or is invalid
  std::uint16_t status = 0;  // of the answer; 0: none
  std::string failure{};     // a sentence without credentials; empty after an answer of 200
  ItemCount records{};       // as HttpClientOptions::takeRecords returned them
};

// Inside a completion, on its thread; null anywhere else.
const EndingRequest* CurrentEndingRequest() noexcept;

// The certificates of a url, as in SenderSettings. The elements of UrlEntry::certificates are zel::string.
// Each is either one or more CA certificates as PEM text, or a pin: the SHA-256 of a server's public key
// (SPKI) as "sha256//BASE64".
//
// If there are any, only they count for this url. CA certificates replace the trusted ones of the system.
// Pins must match the server's key; with pins alone its certificate isn't checked otherwise, so a self-signed
// one will do. With both, both must hold. A url without TLS that has certificates is refused.
using HttpCertificate = zel::string;

// Makes the kit's clients. Each client has its own thread and connections. The states of urls are shared by
// all clients of a factory.
//
// A client implements IHttpClientCertificates. MakeRequestAsync accepts every request whose arguments are
// valid. Even an invalid url ends in OnRequestFailed and isn't refused, since a refusal would end the
// module's send chain. Completions run on the client's thread, so one that blocks holds up the client's other
// requests. Wait returns 0 for an answer of any status, the code of a failure, or 0x80000221 when its own
// time is up.
// The codes of failures:
//   0x80000041 out of memory           0x80000046 invalid url or header
//   0x8000004c name not resolved       0x80000051 cancelled, or the client is gone
//   0x80000059 not connected, or disconnected      0x8000005a the server's certificate isn't trusted
//   0x80000063 held back, nothing sent             0x80000071 the answer isn't HTTP, or is too long
//   0x80000221 connect or total time limit         or the code with which the body's Read failed
// When a client is destroyed, its requests in flight end as cancelled before its last Release returns; if
// that comes from a completion, right after it.
// Threads: any, for all operations of factories, clients and requests.
class HttpClientFactory : public network_services::IHttpClientFactory {
 public:
  // Sets the urls of the settings that are about to be given to the module, in order. SetCertificates gets
  // rows without urls, so the next call, on any client, assigns its rows to these urls. Without this call, or
  // with a different number of rows, it only accepts empty rows. Hold a lock of your own from this call to
  // the end of the Construct or SetSettings that follows.
  virtual void AnnounceUrls(std::vector<std::string> urls) = 0;
  // If false, every request of its clients ends as cancelled, those in flight and new ones, until this is
  // called with true. Once it has returned, no byte of a request is sent. Waits for no server and no
  // completion. Throws nothing.
  virtual void AllowRequests(bool allowed) = 0;
  // One row for each url that has had a request, sorted.
  virtual std::vector<HttpClientState> States() const = 0;
  // How the bodies for each url, as it is in the settings, are compressed, from the next request on. One that
  // doesn't get smaller, or has over 16 MiB, is sent plain. If the server answers 415 to a compressed body,
  // the same request is sent once more with a plain one, before it ends, and so are all others to this url
  // while the factory lives.
  virtual void SetCodings(CodingTable codings) = 0;
  // Of one url, as it is in the settings; nothing if it had no request.
  virtual std::optional<HttpClientState> StateOf(const std::string& url) const = 0;
  // How long requests to this url, as it is in the settings, are still held back; 0: they aren't.
  virtual std::chrono::milliseconds HeldBackFor(const std::string& url) const = 0;

  // For a host that divides refused packets. All three: of one url, as it is in the settings.
  // The status of the last request if its content was refused (RefusesContent), otherwise 0. Returns each
  // refusal once.
  virtual std::uint16_t TakeRefusal(const std::string& url) = 0;
  // The next request repeats content that was refused. If it is refused again, that isn't a failure.
  virtual void ExpectRefusal(const std::string& url) = 0;
  // Some content waits because it was refused with this status, though other content is accepted; 0: none.
  // Only for the state of the url: after an answer of 200 it reports this status.
  virtual void NoteStandingBack(const std::string& url, std::uint16_t status) = 0;

 protected:
  ~HttpClientFactory() = default;
};

// Throws std::invalid_argument, which says what is wrong with an option.
zel::Ref<HttpClientFactory> CreateHttpClientFactory(const HttpClientOptions& options);

}  // namespace veld_report::host
