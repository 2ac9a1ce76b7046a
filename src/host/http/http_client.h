// The host kit's HTTP client: IHttpClient on libcurl, with manners towards servers in trouble.
//
// It differs from calling libcurl in that it is asynchronous, keeps exactly one completion per accepted
// request, and holds requests back from a url that asked for it (Retry-After) or keeps failing. It sends
// bodies and reads statuses; it isn't for fetching things: the content of an answer is thrown away.
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
#include "types/ref.h"

namespace veld_report::host {

// When requests to a url are held back. The first failure in a row holds nothing, so a single bad answer
// changes nothing for the requests behind it. The n-th one, from the second on, draws its wait evenly between
// 0 and firstDelayMs * 2^(n-2), at most maxDelayMs. Retry-After of a 429 or 503 holds from the first on.
//
// A failure is: no answer (but for a cancelled request), and the statuses 408, 425, 429 and 500 up. Any other
// status says that the server is well, though it may not like the content.
struct BackoffOptions {
  bool enabled = true;
  std::uint32_t firstDelayMs = 1000;
  std::uint32_t maxDelayMs = 5 * 60 * 1000;
  std::uint32_t maxRetryAfterMs = 60 * 60 * 1000;
};

struct HttpClientOptions {
  std::uint32_t connectTimeoutMs = 4000;
  // From the start of a request to the end of its answer. Longer than the module waits for one (5 s) on
  // purpose: an answer that comes late still spares the server the same packet again.
  std::uint32_t totalTimeoutMs = 30000;
  // An answer whose content is longer ends the request as failed.
  std::uint64_t answerLimitBytes = std::uint64_t{1} << 20;
  // No value: what http_proxy, https_proxy, all_proxy and no_proxy said when the factory was made. Empty: no
  // proxy. Else the proxy's url, for all urls but those of the hosts in `noProxy` (commas between them).
  std::optional<std::string> proxy{};
  std::string noProxy{};
  // Trusted certificates in place of the system's: a PEM file, a folder with hashed names. For urls without
  // certificates of their own.
  std::string caFile{};
  std::string caDirectory{};
  // Addresses that go before name resolution, each "HOST:PORT:ADDRESS[,ADDRESS]...".
  std::vector<std::string> resolve{};
  BackoffOptions backoff{};
  // Called on a client's thread before a request that is held back ends; may be empty. Such a request ends
  // the sender's walk through its queues, and the urls behind it in the walk wait for the next cycle. Who
  // runs the timer can have that cycle come sooner (TimerService::RunSoon).
  std::function<void()> onBackoff{};
  std::shared_ptr<Clock> clock{};    // for holding back; null: the machine's
  std::function<double()> random{};  // evenly in [0, 1), called by one thread at a time; null: the machine's
  zel::Ref<zel::ITracer> tracer{};   // may be null; gets a line per failed request, without anything secret
};

// What the client knows of one url that it has had a request for.
struct HttpClientState {
  std::string url{};  // without user and password
  // Until then requests end at once with 0x80000063 "Not ready". By the calendar, for people.
  std::optional<std::chrono::system_clock::time_point> waitsUntil{};
  std::string lastError{};       // a sentence; empty after an answer from 200 to 299
  std::uint16_t lastStatus = 0;  // of the last answer; 0: none yet
  std::uint32_t failures = 0;    // in a row
};

// The certificates that a url brings along, as SenderSettings hands them over: the elements of
// UrlEntry::certificates are zel::string, each either one or more CA certificates as PEM text, or the SHA-256
// of a server's public key (SPKI) as "sha256//BASE64".
//
// With any given, only they count for this url: CA certificates replace the trusted ones of the system; pins
// must match the server's key, and with pins alone nothing else is asked of its certificate, so a self-signed
// one will do. With both, both must hold. A url without TLS that brings certificates is refused.
using HttpCertificate = zel::string;

// Gives out the kit's clients. Each client has a thread and connections of its own; what is known of urls is
// shared by the clients of one factory.
//
// A client offers IHttpClientCertificates. MakeRequestAsync accepts every request whose arguments make sense:
// an invalid url, too, ends in OnRequestFailed and not in a refusal, since that would end the module's send
// chain. Completions run on the client's thread: one that blocks holds up the client's other requests. Wait
// answers 0 for an answer of any status, the code of a failure, or 0x80000221 when its own time is up.
// The codes of failures:
//   0x80000041 out of memory           0x80000046 the url or a header isn't valid
//   0x8000004c name not resolved       0x80000051 cancelled, or the client has gone
//   0x80000059 connection not made, or broken      0x8000005a the server's certificate isn't trusted
//   0x80000063 held back, nothing was sent         0x80000071 the answer isn't HTTP, or is too long
//   0x80000221 connect or total time limit         or the code with which the body's Read failed
// When a client goes, its requests in flight end as cancelled before its last Release returns, unless that
// comes from a completion: then right after it.
// Threads: any, for all operations of factories, clients and requests.
class HttpClientFactory : public network_services::IHttpClientFactory {
 public:
  // Names the urls of the settings that are about to be given to the module, in their order. SetCertificates
  // hands over rows without urls, so the next one, of any client, takes its rows for these urls. Without this
  // call, or with another number of rows, it accepts only empty rows. Hold a lock of your own over this call
  // and the Construct or SetSettings that follows.
  virtual void AnnounceUrls(std::vector<std::string> urls) = 0;
  // With false every request of its clients ends as cancelled, those in flight and those still to come, until
  // this is called with true. From its return on no byte of a request leaves. Waits for no server and no
  // completion. Throws nothing.
  virtual void AllowRequests(bool allowed) = 0;
  // A row for each url that has had a request, sorted.
  virtual std::vector<HttpClientState> States() const = 0;
  // Another number than before whenever States would tell something new, but for waits that have run out.
  // Asking costs no lock and no copy.
  virtual std::uint64_t StatesVersion() const = 0;

 protected:
  ~HttpClientFactory() = default;
};

// Throws std::invalid_argument with what is wrong with an option.
zel::Ref<HttpClientFactory> CreateHttpClientFactory(const HttpClientOptions& options);

}  // namespace veld_report::host
