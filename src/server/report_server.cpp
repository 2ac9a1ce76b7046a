#include "server/report_server.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "host/base/printable.h"
#include "server/body_capture.h"
#include "server/body_decoder.h"
#include "server/connection_watch.h"
#include "server/framing_check.h"
#include "server/json_reader.h"
#include "server/library_refusals.h"
#include "server/listen_socket.h"
#include "server/peer_name.h"
#include "server/rate_limit.h"
#include "server/sink_set.h"
#include "server/tls_certificate.h"
#include "server/tls_options.h"

namespace veld_report::server {
namespace {

// A body over the limit is read and dropped up to this multiple of the limit, so that a client that is still
// sending can read the answer. Beyond that the connection is closed.
constexpr std::size_t drainFactor = 4;
constexpr std::chrono::seconds stopPatience{5};
// Headroom in the library's own limit, for a burst of new connections while the cut ones are still closing.
constexpr unsigned spareConnections = 32;

struct Answer {
  unsigned status;
  std::string text;
  std::optional<RefusalReason> refusal{};
  std::string note{};                  // for the log only
  std::chrono::seconds retryAfter{1};  // of 429 and 503
};

// From its first line on.
struct Request {
  std::string_view target;    // the place of its raw text, which the library changes after OnTarget
  std::string targetProblem;  // what is wrong with that text
  // The rest is set once its headers are there.
  ConnectionWatch::Connection* connection = nullptr;  // null: until then
  std::size_t declared = 0;                           // 0 for a chunked body
  std::string path{};
  std::string body{};
  host::Clock::WallTimePoint begun{};
  std::size_t received = 0;
  bool answered = false;            // an answer was queued, or refused without one
  bool noRoom = false;              // the body is read and dropped
  std::optional<Answer> refused{};  // likewise
};

std::string_view Header(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value ? value : "";
}

// The declared length; 0 if there is none (a chunked body).
std::size_t DeclaredLength(MHD_Connection* connection) {
  const std::string_view text = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
  std::size_t length = 0;
  std::from_chars(text.data(), text.data() + text.size(), length);
  return length;
}

// A host or an unescaped path as a sink gets it: printable ASCII, cut to a length that every record may have
// beside it.
std::string UrlText(std::string_view text) {
  constexpr std::size_t maxBytes = 500;
  std::string url;
  for (const char each : text.substr(0, maxBytes)) {
    const auto byte = static_cast<unsigned char>(each);
    char escaped[4];
    if (byte > 0x20 && byte < 0x7f && byte != '%') {
      url += each;
    } else {
      std::snprintf(escaped, sizeof escaped, "%%%02X", unsigned{byte});
      url += escaped;
    }
  }
  return url;
}

// The "kid" of a signature's header, which is for the signer to choose.
std::string KeyName(std::string_view header) {
  try {
    for (const JsonMember& member : ReadJsonObject(header)) {
      if (member.key != "kid") continue;
      std::string name = ReadJsonString(member.value);
      return name.size() > 200 || name.find('\0') != std::string::npos ? "" : name;
    }
  } catch (const JsonError&) {
    // Other headers are allowed; they have no name.
  }
  return {};
}

std::size_t BodyMemory(const ReportServerOptions& options) {
  return std::max(options.bodyMemoryBytes, 4 * options.bodyLimitBytes);
}

std::string AddressOf(MHD_Connection* connection) {
  const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return ClientAddress(info ? info->client_addr : nullptr);
}

std::string PeerOf(MHD_Connection* connection) {
  const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  return PeerName(info ? info->client_addr : nullptr);
}

ConnectionWatch::Connection* WatchedOf(MHD_Connection* connection) {
  const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return static_cast<ConnectionWatch::Connection*>(info->socket_context);
}

std::string AnsweredWith(unsigned status) {
  return status == 0 ? ": closed without an answer: " : ": answered " + std::to_string(status) + ": ";
}

// Whether this side has closed first. If the other side has closed too by now, that can't be told, and it is
// taken for the first.
bool HasEndedFirst(int socket) {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
  return info.tcpi_state != TCP_CLOSE_WAIT && info.tcpi_state != TCP_LAST_ACK && info.tcpi_state != TCP_CLOSE;
}

// `ends`: the connection ends with this answer.
MHD_Result Queue(MHD_Connection* connection, const Answer& answer, bool ends) {
  const std::string text = answer.text + "\n";
  MHD_Response* response =
      MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY);
  if (!response) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
  if (answer.status == MHD_HTTP_METHOD_NOT_ALLOWED)
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "POST");
  if (answer.status == MHD_HTTP_UNSUPPORTED_MEDIA_TYPE)
    MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_ENCODING, acceptedCodings);
  if (answer.status == MHD_HTTP_SERVICE_UNAVAILABLE || answer.status == MHD_HTTP_TOO_MANY_REQUESTS)
    MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER,
                            std::to_string(answer.retryAfter.count()).c_str());
  if (ends) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  const MHD_Result result = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return result;
}

}  // namespace

class ReportServer::Impl {
 public:
  explicit Impl(ReportServerOptions options)
      : options_(std::move(options)),
        socket_(options_.listening >= 0
                    ? TakeListenSocket(options_.listening, options_.address, options_.port)
                    : OpenListenSocket(options_.address, options_.port)),
        certificate_(
            options_.certificatePath.empty()
                ? nullptr
                : std::make_unique<TlsCertificate>(options_.certificatePath, options_.certificateKeyPath)),
        sinks_(options_.sinks, options_.log, "senders are answered 503"),
        capture_(options_.capturePath.empty() ? nullptr
                                              : std::make_unique<BodyCapture>(options_.capturePath)),
        rate_(options_.rate, options_.rateBurst),
        watch_({options_.connectionLimit, options_.requestTime, BodyMemory(options_)},
               [this](CutReason why, const std::string& line) { TellCut(why, line); }) {
    CompareLimits();
    auto tls = TlsOptions(certificate_ != nullptr);
    daemon_ = MHD_start_daemon(
        WaitingFlags(certificate_ != nullptr) | MHD_USE_ITC | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
        &Impl::OnRequest, this, MHD_OPTION_EXTERNAL_LOGGER, &Impl::OnLibraryLog, this, MHD_OPTION_ARRAY,
        tls.data(), MHD_OPTION_LISTEN_SOCKET, socket_.Handle(), MHD_OPTION_THREAD_POOL_SIZE, options_.threads,
        // The library divides this among its threads, and one thread may get all connections.
        MHD_OPTION_CONNECTION_LIMIT, options_.threads * (options_.connectionLimit + spareConnections),
        MHD_OPTION_CONNECTION_TIMEOUT, options_.idleTimeoutSeconds, MHD_OPTION_NOTIFY_COMPLETED,
        &Impl::OnCompleted, this, MHD_OPTION_URI_LOG_CALLBACK, &Impl::OnTarget, this,
        MHD_OPTION_NOTIFY_CONNECTION, &Impl::OnConnection, this, MHD_OPTION_END);
    if (!daemon_) throw std::runtime_error("the HTTP library can't start its threads");
  }
  ~Impl() { Stop(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void Stop() {
    if (!daemon_) return;
    MHD_quiesce_daemon(daemon_);
    socket_.Refuse();
    {
      std::unique_lock lock(mutex_);
      stopping_ = true;
      idle_.wait_for(lock, stopPatience, [this] { return active_ == 0; });
      stopped_ = true;
    }
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
    while (const auto refusal = libraryRefusals_.TakeAny()) TellLibraryRefusal(*refusal, "unknown", "");
    // A quiesced daemon leaves its socket to its owner.
    socket_.Close();
  }

  const ReportServerOptions& Options() const { return options_; }
  SinkSet& Sinks() { return sinks_; }
  void ReloadCertificate() {
    if (!certificate_) return;
    try {
      certificate_->Reload();
      Log("the certificate is read again: " + options_.certificatePath);
    } catch (const std::runtime_error& error) {
      Log(std::string(error.what()) + "; the former certificate stays in use");
    }
  }
  std::uint16_t Port() const { return socket_.Port(); }
  const BoundAddress& Address() const { return socket_.Address(); }
  ServerLoad Load() {
    const ConnectionWatch::Load load = watch_.CurrentLoad();
    return {load.connections,     options_.connectionLimit, load.bodyBytes,
            BodyMemory(options_), sinks_.IsFailing(),       sinks_.IsFailing(options_.unreadyTime),
            IsStopping()};
  }

  // Figures. What is answered is counted before, so who has the answer finds it counted.
  std::atomic<std::uint64_t> storedItems{0};
  std::atomic<std::uint64_t> repeatedItems{0};
  std::atomic<std::uint64_t> refusedRequests{0};
  std::atomic<std::uint64_t> cutConnections{0};

 private:
  // A body has its records in base64.
  void CompareLimits() const {
    std::string sink;
    const std::size_t maxBytes = sinks_.MaxPacketBytes(&sink);
    if (maxBytes < options_.bodyLimitBytes / 4 * 3)
      Log(sink + ": it takes messages with up to " + std::to_string(maxBytes) +
          " bytes of records, while a body may have " + std::to_string(options_.bodyLimitBytes) +
          " bytes; larger ones are answered 413");
  }

  // The library is written in C, so nothing may be thrown through it. It calls OnTarget with the first line;
  // then OnRequest once with the headers, once or more with pieces of the body, and once with an empty piece
  // at the end; and OnCompleted, whatever came of it.
  static void* OnTarget(void*, const char* target, MHD_Connection* connection) noexcept {
    if (auto* const watched = WatchedOf(connection)) watched->used = true;
    try {
      return new Request{target, TargetProblem(target)};
    } catch (const std::exception&) {
      return nullptr;
    }
  }

  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* path, const char* method,
                              const char* version, const char* data, std::size_t* size,
                              void** state) noexcept {
    auto* const server = static_cast<Impl*>(self);
    try {
      auto* const request = static_cast<Request*>(*state);
      if (!request) throw std::bad_alloc();
      if (!request->connection) return server->Begin(connection, *request, path, {method, {}, version});
      if (*size != 0) return server->Receive(connection, request, data, size);
      if (request->answered) return MHD_YES;
      if (!server->watch_.Arrived(request->connection)) return MHD_NO;
      return server->Reply(connection, *request, server->Finish(connection, *request));
    } catch (const std::exception& error) {
      server->Log(std::string("a request ended without an answer: ") + error.what());
      return MHD_NO;
    }
  }

  static void OnCompleted(void* self, MHD_Connection* connection, void** state,
                          MHD_RequestTerminationCode end) noexcept {
    auto* const server = static_cast<Impl*>(self);
    const std::unique_ptr<Request> request(static_cast<Request*>(*state));
    *state = nullptr;
    if (request && !request->answered) server->EndUnanswered(connection, *request, end);
    if (!request || !request->connection) return;
    server->watch_.Ended(request->connection);
    const std::lock_guard lock(server->mutex_);
    if (--server->active_ == 0) server->idle_.notify_all();
  }

  static void OnConnection(void* self, MHD_Connection* connection, void** watched,
                           MHD_ConnectionNotificationCode code) noexcept {
    auto* const server = static_cast<Impl*>(self);
    ConnectionWatch& watch = server->watch_;
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
      if (*watched) server->EndConnection(connection, static_cast<ConnectionWatch::Connection*>(*watched));
      return;
    }
    const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    try {
      *watched = watch.Opened(info->connect_fd);
    } catch (const std::exception&) {
      *watched = nullptr;  // its first request closes it
    }
  }

  // A request that gets no answer from here: the library has answered, the client was silent for too long, or
  // it has gone.
  void EndUnanswered(MHD_Connection* connection, const Request& request,
                     MHD_RequestTerminationCode end) noexcept {
    const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_HTTP_STATUS);
    try {
      const auto refusal = info ? libraryRefusals_.Take(info->http_status) : std::nullopt;
      if (refusal) return TellLibraryRefusal(*refusal, PeerOf(connection), request.path);
      if (end == MHD_REQUEST_TERMINATED_TIMEOUT_REACHED) watch_.Tell(AddressOf(connection), CutReason::time);
    } catch (const std::exception&) {
      // Without memory there is nothing to say it with.
    }
  }

  // The library closes without a word what doesn't even begin like a request, and what is silent for too
  // long. (With TLS a client may also have said farewell before any request.)
  void EndConnection(MHD_Connection* connection, ConnectionWatch::Connection* watched) noexcept {
    try {
      const auto refusal = libraryRefusals_.Take();
      const bool isCut = watch_.IsCut(watched);
      if (refusal && refusal->isTls) {
        if (!isCut) watch_.Tell(watched->address, CutReason::tls);
      } else if (refusal) {
        TellLibraryRefusal(*refusal, PeerOf(connection), "");
      } else if (!watched->used && !isCut && !certificate_ && HasEndedFirst(watched->socket) &&
                 !IsStopping()) {
        const auto age = std::chrono::steady_clock::now() - watched->since;
        if (age >= std::chrono::seconds(options_.idleTimeoutSeconds))
          watch_.Tell(watched->address, CutReason::time);
        else
          TellLibraryRefusal(LibraryRefusals::noRequest, PeerOf(connection), "");
      }
    } catch (const std::exception&) {
      // Likewise.
    }
    watch_.Closed(watched);
  }

  __attribute__((format(printf, 2, 0))) static void OnLibraryLog(void* self, const char* format,
                                                                 va_list values) noexcept {
    auto* const server = static_cast<Impl*>(self);
    char line[200];
    std::vsnprintf(line, sizeof line, format, values);
    try {
      server->libraryRefusals_.Note(line);
    } catch (const std::exception&) {
      // Without memory there is nothing to say it with.
    }
  }

  void TellLibraryRefusal(const LibraryRefusal& refusal, const std::string& peer,
                          const std::string& path) noexcept {
    try {
      ++refusedRequests;
      Log(peer + AnsweredWith(refusal.status) + refusal.sentence);
      if (options_.observer)
        options_.observer->OnRefused({"", path, peer, ""},
                                     {refusal.status, RefusalReason::framing, refusal.sentence});
    } catch (const std::exception&) {
      // Likewise.
    }
  }

  void TellCut(CutReason why, const std::string& line) {
    ++cutConnections;
    Log(line);
    if (options_.observer) options_.observer->OnCut(why);
  }

  MHD_Result Begin(MHD_Connection* connection, Request& begun, const char* path, RequestLine line) {
    auto* const watched = WatchedOf(connection);
    if (!watched) return MHD_NO;
    watch_.BodyBegins(watched);
    begun.declared = DeclaredLength(connection);
    begun.path = path;
    begun.begun = std::chrono::system_clock::now();
    {
      // Counted before anything is answered, so that Stop waits for it.
      const std::lock_guard lock(mutex_);
      if (stopped_) return MHD_NO;
      ++active_;
      begun.connection = watched;
    }
    const bool over = begun.declared > options_.bodyLimitBytes;
    const bool waits = strcasecmp(Header(connection, MHD_HTTP_HEADER_EXPECT).data(), "100-continue") == 0;
    std::optional<Answer> now;
    line.target = begun.target;
    const std::string problem =
        begun.targetProblem.empty() ? FramingProblem(connection, line) : begun.targetProblem;
    if (!problem.empty()) {
      now = Refuse(MHD_HTTP_BAD_REQUEST, RefusalReason::framing, problem);
    } else if (line.method != MHD_HTTP_METHOD_POST) {
      now = Refuse(MHD_HTTP_METHOD_NOT_ALLOWED, RefusalReason::method, "only POST is accepted");
    } else if (over && (waits || begun.declared / drainFactor > options_.bodyLimitBytes)) {
      now = TooLarge();
    } else {
      begun.refused = RefuseForNow(AddressOf(connection));
      if (waits) now = begun.refused;
    }
    if (!now) return MHD_YES;
    return Reply(connection, begun, *now, !problem.empty());
  }

  // An answer that doesn't depend on the body.
  std::optional<Answer> RefuseForNow(const std::string& address) {
    const std::chrono::seconds wait = rate_.Take(address, RateLimit::Clock::now());
    Answer answer;
    if (IsStopping()) {
      answer = Refuse(MHD_HTTP_SERVICE_UNAVAILABLE, RefusalReason::stopping, "the server is stopping");
    } else if (wait.count() > 0) {
      answer = Refuse(MHD_HTTP_TOO_MANY_REQUESTS, RefusalReason::rate, "too many requests of this client");
      answer.retryAfter = wait;
    } else {
      return std::nullopt;
    }
    return answer;
  }

  MHD_Result Reply(MHD_Connection* connection, Request& request, const Answer& answer, bool ends = false) {
    request.answered = true;
    return Queue(connection, Tell(connection, request, answer), ends || IsStopping());
  }

  bool IsStopping() {
    const std::lock_guard lock(mutex_);
    return stopping_;
  }

  MHD_Result Receive(MHD_Connection* connection, Request* request, const char* data, std::size_t* size) {
    request->received += *size;
    const bool taken = request->received <= options_.bodyLimitBytes && !request->noRoom && !request->refused;
    if (taken && MakeRoom(request)) {
      request->body.append(data, *size);
    } else {
      std::string().swap(request->body);
    }
    if (request->received / drainFactor > options_.bodyLimitBytes) {
      request->answered = true;
      Answer none = TooLarge();
      none.status = 0;
      Tell(connection, *request, std::move(none));
      return MHD_NO;
    }
    *size = 0;
    return MHD_YES;
  }

  // Memory is reserved as the body arrives, not by its declared length.
  bool MakeRoom(Request* request) {
    std::string& body = request->body;
    if (request->received <= body.capacity()) return true;
    const std::size_t first = std::min(request->declared, ConnectionWatch::firstPieceBytes);
    const std::size_t wanted = std::max({request->received, 2 * body.capacity(), first});
    request->noRoom = !watch_.Hold(request->connection, wanted);
    if (!request->noRoom) body.reserve(wanted);
    return !request->noRoom;
  }

  Answer Finish(MHD_Connection* connection, Request& request) {
    if (request.received > options_.bodyLimitBytes) return TooLarge();
    if (request.refused) return *request.refused;
    if (request.noRoom) return NoRoom();
    if (const auto refused = Decode(Header(connection, MHD_HTTP_HEADER_CONTENT_ENCODING), &request))
      return *refused;
    const std::string wrongType = ContentTypeProblem(Header(connection, MHD_HTTP_HEADER_CONTENT_TYPE));
    if (!wrongType.empty()) return RefuseMessage(request.body, RefusalReason::content, wrongType);
    const MessageContent content = CheckMessage(request.body, options_.verifier);
    if (!content.problem.empty())
      return RefuseMessage(request.body,
                           content.signatureRefused ? RefusalReason::signature : RefusalReason::message,
                           content.problem);
    if (options_.status != MHD_HTTP_OK)
      return {options_.status,
              "the message is valid; nothing was stored, because the server is set to answer " +
                  std::to_string(options_.status),
              RefusalReason::testStatus};
    return Store(connection, request, content);
  }

  // Replaces the body by its text. Returns the answer if it can't; then no body is left.
  std::optional<Answer> Decode(std::string_view contentEncoding, Request* request) {
    const std::optional<BodyCoding> coding = ReadBodyCoding(contentEncoding);
    if (coding == BodyCoding::identity || request->body.empty()) return std::nullopt;
    const std::string encoded = std::exchange(request->body, {});
    if (!coding) {
      return Refuse(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, RefusalReason::content,
                    "the Content-Encoding is " + host::Printable(contentEncoding) +
                        "; only gzip and zstd are accepted, or none");
    }
    DecodedBody decoded = DecodeBody(*coding, encoded, options_.bodyLimitBytes, [&](std::size_t textBytes) {
      return watch_.Hold(request->connection, encoded.capacity() + textBytes);
    });
    switch (decoded.end) {
      case DecodedBody::damaged:
        return Refuse(MHD_HTTP_BAD_REQUEST, RefusalReason::content, decoded.problem);
      case DecodedBody::tooLarge:
        return TooLarge(" once it is decoded");
      case DecodedBody::noRoom:
        return NoRoom();
      case DecodedBody::whole:
        break;
    }
    request->body = std::move(decoded.text);
    return std::nullopt;
  }

  Answer Store(MHD_Connection* connection, const Request& request, const MessageContent& content) {
    std::string keyName = content.signatureChecked ? KeyName(content.signatureHeader) : "";
    const auto named = options_.keyNames.find(keyName);
    if (named != options_.keyNames.end()) keyName = named->second;
    try {
      const auto begin = std::chrono::steady_clock::now();
      const std::string path = UrlText(request.path);
      const std::string url = UrlText(Header(connection, MHD_HTTP_HEADER_HOST)) + path;
      const StoreResult result =
          sinks_.Store({url, path, keyName, request.begun, content.itemLines, content.payloadText});
      const auto sinkTime = std::chrono::steady_clock::now() - begin;
      storedItems += result.stored;
      repeatedItems += result.repeated;
      Observe(connection, request, [&](const ObservedRequest& observed) {
        options_.observer->OnStored(observed, {content, keyName, result, sinkTime});
      });
      const std::string repeated =
          result.repeated == 0 ? "" : std::to_string(result.repeated) + " items repeated, ";
      return {MHD_HTTP_OK, repeated + std::to_string(result.stored) + " items stored"};
    } catch (const PacketTooLarge& error) {
      return Refuse(MHD_HTTP_CONTENT_TOO_LARGE, RefusalReason::size, error.what());
    } catch (const std::runtime_error& error) {
      return {MHD_HTTP_SERVICE_UNAVAILABLE, error.what(), RefusalReason::sink};
    }
  }

  Answer TooLarge(const char* when = "") {
    return Refuse(
        MHD_HTTP_CONTENT_TOO_LARGE, RefusalReason::size,
        "the body is over the limit of " + std::to_string(options_.bodyLimitBytes) + " bytes" + when);
  }
  Answer NoRoom() {
    return Refuse(MHD_HTTP_SERVICE_UNAVAILABLE, RefusalReason::memory,
                  "too many bodies are arriving at once; try again later");
  }
  Answer RefuseMessage(const std::string& body, RefusalReason refusal, const std::string& sentence) {
    return Refuse(MHD_HTTP_BAD_REQUEST, refusal, sentence, capture_ ? "; " + capture_->Keep(body) : "");
  }
  static Answer Refuse(unsigned status, RefusalReason refusal, const std::string& sentence,
                       const std::string& note = {}) {
    return {status, sentence, refusal, note};
  }
  // Passes the answer on; log and observer hear of it if it is a refusal.
  Answer Tell(MHD_Connection* connection, const Request& request, Answer answer) {
    if (!answer.refusal) return answer;
    if (answer.refusal != RefusalReason::testStatus) ++refusedRequests;
    // Of sinks that fail, the log hears once (sink_set.h).
    if (answer.refusal != RefusalReason::testStatus && answer.refusal != RefusalReason::sink)
      Log(AddressOf(connection) + AnsweredWith(answer.status) + answer.text + answer.note);
    Observe(connection, request, [&](const ObservedRequest& observed) {
      options_.observer->OnRefused(observed, {answer.status, *answer.refusal, answer.text});
    });
    return answer;
  }
  template <class Call>
  void Observe(MHD_Connection* connection, const Request& request, const Call& call) const {
    if (!options_.observer) return;
    const std::string peer = PeerOf(connection);
    call({Header(connection, MHD_HTTP_HEADER_HOST), request.path, peer, request.body});
  }
  void Log(const std::string& line) const {
    if (options_.log) options_.log(line);
  }

  const ReportServerOptions options_;
  ListenSocket socket_;                                // taken before the sinks change anything on the disk
  const std::unique_ptr<TlsCertificate> certificate_;  // null: without TLS
  SinkSet sinks_;
  const std::unique_ptr<BodyCapture> capture_;  // may be null
  RateLimit rate_;
  LibraryRefusals libraryRefusals_;
  ConnectionWatch watch_;
  MHD_Daemon* daemon_ = nullptr;

  std::mutex mutex_;  // guards the members below; held for moments
  std::condition_variable idle_;
  std::size_t active_ = 0;  // requests in progress
  bool stopping_ = false;   // further requests are refused
  bool stopped_ = false;    // and then not even answered
};

ReportServer::ReportServer(ReportServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
ReportServer::~ReportServer() = default;

std::uint16_t ReportServer::Port() const { return impl_->Port(); }

std::string ReportServer::Url() const {
  const std::string& given = impl_->Options().address;
  const bool isNumeric = given.empty() || given.find(':') != std::string::npos;
  const char* const scheme = impl_->Options().certificatePath.empty() ? "http://" : "https://";
  return scheme + (isNumeric ? impl_->Address().text : given) + ":" + std::to_string(Port());
}

bool ReportServer::HasCertificate() const { return !impl_->Options().certificatePath.empty(); }
std::uint64_t ReportServer::StoredItems() const { return impl_->storedItems; }
std::uint64_t ReportServer::RepeatedItems() const { return impl_->repeatedItems; }
void ReportServer::ReloadCertificate() { impl_->ReloadCertificate(); }
void ReportServer::ReopenSinks() { impl_->Sinks().Reopen(); }
std::uint64_t ReportServer::RefusedRequests() const { return impl_->refusedRequests; }
std::uint64_t ReportServer::CutConnections() const { return impl_->cutConnections; }
ServerLoad ReportServer::Load() const { return impl_->Load(); }
void ReportServer::Stop() { impl_->Stop(); }

}  // namespace veld_report::server
