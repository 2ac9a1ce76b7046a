#include "server/page/page_server.h"

#include <microhttpd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "server/connection_watch.h"
#include "server/framing_check.h"
#include "server/listen_socket.h"
#include "server/page/page_access.h"
#include "server/page/page_assets.h"
#include "server/tls_options.h"

namespace veld_report::server {
namespace {

constexpr unsigned connectionLimit = 64;
constexpr unsigned idleTimeoutSeconds = 60;
constexpr std::chrono::seconds requestTime{30};
constexpr std::size_t formBytes = 4096;  // of the form with the token
constexpr std::size_t eventBlockBytes = std::size_t{32} << 10;

constexpr const char* jsonType = "application/json";
constexpr const char* textType = "text/plain; charset=utf-8";
// No inline script or style, nothing from elsewhere, no frame around the page, and no markup made of text.
constexpr const char* contentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "form-action 'self'; base-uri 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; "
    "trusted-types 'none'";

struct Answer {
  unsigned status;
  std::string_view contentType;
  std::string text;
  std::vector<std::pair<const char*, std::string>> headers{};
};

Answer Sentence(unsigned status, const std::string& sentence) { return {status, textType, sentence + "\n"}; }

std::string_view Value(MHD_Connection* connection, MHD_ValueKind kind, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, kind, name);
  return value ? value : "";
}

std::optional<std::uint64_t> NumberAfter(std::string_view path, std::string_view beginning) {
  if (!path.starts_with(beginning)) return std::nullopt;
  path.remove_prefix(beginning.size());
  std::uint64_t number = 0;
  const auto [end, code] = std::from_chars(path.data(), path.data() + path.size(), number);
  if (code != std::errc() || end != path.data() + path.size()) return std::nullopt;
  return number;
}

// The value of `name` in a form, with %XX and + decoded.
std::string FormValue(std::string_view form, std::string_view name) {
  while (!form.empty()) {
    std::string_view field = form.substr(0, form.find('&'));
    form.remove_prefix(std::min(field.size() + 1, form.size()));
    if (!field.starts_with(name) || field.substr(name.size(), 1) != "=") continue;
    std::string value(field.substr(name.size() + 1));
    std::replace(value.begin(), value.end(), '+', ' ');
    value.resize(MHD_http_unescape(value.data()));
    return value;
  }
  return {};
}

ListenSocket Listen(const PageServerOptions& options) {
  return options.listening >= 0 ? TakeListenSocket(options.listening, options.address, options.port)
                                : OpenListenSocket(options.address, options.port);
}

void RequireToken(const BoundAddress& bound, const std::string& token) {
  if (!bound.isLoopback && token.empty())
    throw std::runtime_error(
        "the page shows what the records hold, so beyond loopback it needs a token (--page-token)");
}

PageAccess MakeAccess(const PageServerOptions& options, const BoundAddress& bound, bool isTls) {
  std::vector<std::string> names{bound.text};
  if (!options.address.empty()) names.push_back(options.address);
  if (bound.isLoopback) names.insert(names.end(), {"localhost", "127.0.0.1", "[::1]"});
  std::array<char, 256> machine{};
  if (!bound.isLoopback && gethostname(machine.data(), machine.size() - 1) == 0)
    names.emplace_back(machine.data());
  return {std::move(names), bound.isAny, bound.port, options.token, isTls};
}

}  // namespace

class PageServer::Impl {
 public:
  Impl(const PageServerOptions& options, const ReportServer& server, PageWatch& watch)
      : server_(server),
        watch_(watch),
        listening_(Listen(options)),
        isTls_(!listening_.Address().isLoopback && server.HasCertificate()),
        access_(MakeAccess(options, listening_.Address(), isTls_)),
        connections_({connectionLimit, requestTime, formBytes * connectionLimit}, nullptr) {
    RequireToken(listening_.Address(), options.token);
    watch_.Run([this] { return server_.Load(); });
    auto tls = TlsOptions(isTls_);
    daemon_ = MHD_start_daemon(WaitingFlags(isTls_) | MHD_USE_ITC | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr,
                               nullptr, &Impl::OnRequest, this, MHD_OPTION_ARRAY, tls.data(),
                               MHD_OPTION_LISTEN_SOCKET, listening_.Handle(), MHD_OPTION_CONNECTION_LIMIT,
                               2 * connectionLimit, MHD_OPTION_CONNECTION_TIMEOUT, idleTimeoutSeconds,
                               MHD_OPTION_NOTIFY_COMPLETED, &Impl::OnCompleted, this,
                               MHD_OPTION_NOTIFY_CONNECTION, &Impl::OnConnection, this, MHD_OPTION_END);
    if (daemon_) return;
    watch_.Stop();
    throw std::runtime_error("the HTTP library can't start the page's thread");
  }
  ~Impl() {
    watch_.Stop();
    // Leaves the socket to its owner.
    MHD_quiesce_daemon(daemon_);
    MHD_stop_daemon(daemon_);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  std::uint16_t Port() const { return listening_.Port(); }
  std::string Warning() const {
    if (listening_.Address().isLoopback || isTls_) return {};
    return Url() +
           ": the page's token and what it shows cross the network as clear text; with --certificate "
           "it speaks TLS";
  }
  std::string Url() const {
    return (isTls_ ? "https://" : "http://") + listening_.Address().text + ":" +
           std::to_string(listening_.Port()) + "/";
  }

 private:
  struct Request {
    ConnectionWatch::Connection* connection;
    std::string form;
  };
  struct OpenStream {
    PageWatch& watch;
    MHD_Connection* connection;
    std::shared_ptr<EventStream> stream;
  };

  // As in the report server: nothing may be thrown through the library.
  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* path, const char* method,
                              const char* version, const char* data, std::size_t* size,
                              void** state) noexcept {
    auto* const page = static_cast<Impl*>(self);
    try {
      if (!*state) {
        auto* const watched = static_cast<ConnectionWatch::Connection*>(
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
        if (!watched) return MHD_NO;
        page->connections_.BodyBegins(watched);
        *state = new Request{watched, {}};
        const std::string problem = FramingProblem(connection, {method, {}, version});
        if (problem.empty()) return MHD_YES;
        Answer answer = Sentence(MHD_HTTP_BAD_REQUEST, problem);
        answer.headers.emplace_back(MHD_HTTP_HEADER_CONNECTION, "close");
        return Queue(connection, answer);
      }
      auto* const request = static_cast<Request*>(*state);
      if (*size != 0) {
        if (request->form.size() + *size > formBytes) return MHD_NO;
        request->form.append(data, *size);
        *size = 0;
        return MHD_YES;
      }
      if (!page->connections_.Arrived(request->connection)) return MHD_NO;
      return page->Respond(connection, path, method, request->form);
    } catch (const std::exception&) {
      return MHD_NO;  // out of memory
    }
  }

  static void OnCompleted(void* self, MHD_Connection*, void** state, MHD_RequestTerminationCode) noexcept {
    const std::unique_ptr<Request> request(static_cast<Request*>(*state));
    *state = nullptr;
    if (request) static_cast<Impl*>(self)->connections_.Ended(request->connection);
  }

  static void OnConnection(void* self, MHD_Connection* connection, void** watched,
                           MHD_ConnectionNotificationCode code) noexcept {
    ConnectionWatch& watch = static_cast<Impl*>(self)->connections_;
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
      if (*watched) watch.Closed(static_cast<ConnectionWatch::Connection*>(*watched));
      return;
    }
    try {
      *watched =
          watch.Opened(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd);
    } catch (const std::exception&) {
      *watched = nullptr;  // its first request closes it
    }
  }

  MHD_Result Respond(MHD_Connection* connection, std::string_view path, std::string_view method,
                     const std::string& form) {
    if (path == "/events" && method == MHD_HTTP_METHOD_GET) {
      const std::optional<Answer> refusal = Refused(connection, path);
      return refusal ? Queue(connection, *refusal) : Stream(connection);
    }
    return Queue(connection, Find(connection, path, method, form));
  }

  Answer Find(MHD_Connection* connection, std::string_view path, std::string_view method,
              const std::string& form) {
    const bool isForm = path == "/token";
    if (isForm ? method != MHD_HTTP_METHOD_POST
               : method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD) {
      Answer answer = Sentence(MHD_HTTP_METHOD_NOT_ALLOWED,
                               "this only answers " + std::string(isForm ? "POST" : "GET and HEAD"));
      answer.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, isForm ? "POST" : "GET, HEAD");
      return answer;
    }
    if (path == "/healthz") return Sentence(MHD_HTTP_OK, "ok");
    if (path == "/readyz") {
      const ServerLoad load = server_.Load();
      if (load.stopping) return Sentence(MHD_HTTP_SERVICE_UNAVAILABLE, "the server is stopping");
      if (load.sinkFailedLately)
        return Sentence(MHD_HTTP_SERVICE_UNAVAILABLE, "the latest message couldn't be stored");
      return Sentence(MHD_HTTP_OK, "ok");
    }
    if (const std::optional<Answer> refusal = Refused(connection, path)) return *refusal;
    if (isForm) return TakeToken(form);
    if (path == "/metrics") {
      return {MHD_HTTP_OK, "text/plain; version=0.0.4; charset=utf-8",
              watch_.Counters().MetricsText(server_.Load())};
    }
    if (path == "/state") return {MHD_HTTP_OK, jsonType, watch_.State(server_.Url())};
    if (path == "/sources") return {MHD_HTTP_OK, jsonType, watch_.Sources()};
    if (path == "/members") {
      const std::string ofPath(Value(connection, MHD_GET_ARGUMENT_KIND, "path"));
      return {MHD_HTTP_OK, jsonType, watch_.Members(ofPath)};
    }
    if (path == "/refused") return {MHD_HTTP_OK, jsonType, RefusedJson(watch_.Refused().Latest())};
    if (const auto number = NumberAfter(path, "/records/")) {
      std::string record = watch_.Record(*number);
      if (record.empty()) return Sentence(MHD_HTTP_NOT_FOUND, "this record is no longer kept for the page");
      return {MHD_HTTP_OK, jsonType, std::move(record)};
    }
    if (const auto number = NumberAfter(path, "/refused/")) return RefusedBody(*number);
    if (const PageAsset* asset = FindPageAsset(path))
      return {MHD_HTTP_OK, asset->contentType, std::string(asset->text)};
    return Sentence(MHD_HTTP_NOT_FOUND, "there is nothing here; the page is at /");
  }

  // Empty if the request may be answered.
  std::optional<Answer> Refused(MHD_Connection* connection, std::string_view path) {
    const auto header = [&](const char* name) { return Value(connection, MHD_HEADER_KIND, name); };
    const PageRequest request{
        header(MHD_HTTP_HEADER_HOST),   header(MHD_HTTP_HEADER_ORIGIN),
        header("Sec-Fetch-Site"),       header(MHD_HTTP_HEADER_AUTHORIZATION),
        header(MHD_HTTP_HEADER_COOKIE), path == "/" && header("Sec-Fetch-Mode") == "navigate"};
    switch (access_.Check(request)) {
      case PageAccess::Verdict::granted:
        return std::nullopt;
      case PageAccess::Verdict::otherHost:
        return Sentence(MHD_HTTP_MISDIRECTED_REQUEST,
                        "the page isn't called by this name; it is at " + Url());
      case PageAccess::Verdict::otherOrigin:
        return Sentence(MHD_HTTP_FORBIDDEN, "another site may not read the page");
      case PageAccess::Verdict::needsToken:
        break;
    }
    // What the form itself needs holds nothing of the records.
    if (path == "/token" || path == "/page.css" || path == "/icon.svg") return std::nullopt;
    const PageAsset* const form = FindPageAsset("/token.html");
    if (path == "/" && form) return Answer{MHD_HTTP_UNAUTHORIZED, form->contentType, std::string(form->text)};
    return Sentence(MHD_HTTP_UNAUTHORIZED,
                    "the page needs its token: open / in a browser, or send \"Authorization: Bearer TOKEN\"");
  }

  Answer TakeToken(const std::string& form) const {
    if (!access_.IsToken(FormValue(form, "token")))
      return Sentence(MHD_HTTP_FORBIDDEN, "this isn't the token of the page");
    return {MHD_HTTP_SEE_OTHER,
            textType,
            "",
            {{MHD_HTTP_HEADER_LOCATION, "/"}, {MHD_HTTP_HEADER_SET_COOKIE, access_.Cookie()}}};
  }

  Answer RefusedBody(std::uint64_t number) const {
    const auto body = watch_.Refused().Body(number);
    if (!body) return Sentence(MHD_HTTP_NOT_FOUND, "this body isn't kept, or no longer");
    const std::string name = "refused-" + std::to_string(number) + ".body";
    return {MHD_HTTP_OK,
            "application/octet-stream",
            *body,
            {{MHD_HTTP_HEADER_CONTENT_DISPOSITION, "attachment; filename=\"" + name + "\""}}};
  }

  MHD_Result Stream(MHD_Connection* connection) {
    std::shared_ptr<EventStream> stream;
    try {
      stream = watch_.OpenStream(RecordFilter(Value(connection, MHD_GET_ARGUMENT_KIND, "filter")));
    } catch (const std::invalid_argument& problem) {
      return Queue(connection, Sentence(MHD_HTTP_BAD_REQUEST, problem.what()));
    }
    if (!stream) return Queue(connection, Sentence(MHD_HTTP_SERVICE_UNAVAILABLE, "too many pages are open"));
    auto* const open = new OpenStream{watch_, connection, std::move(stream)};
    MHD_Response* const response = MHD_create_response_from_callback(
        MHD_SIZE_UNKNOWN, eventBlockBytes, &Impl::ReadStream, open, &Impl::CloseStream);
    if (!response) {
      CloseStream(open);
      return MHD_NO;
    }
    return Send(connection, MHD_HTTP_OK, "text/event-stream", {}, response);
  }

  static ssize_t ReadStream(void* state, std::uint64_t, char* to, std::size_t room) noexcept {
    auto* const open = static_cast<OpenStream*>(state);
    MHD_Connection* const connection = open->connection;
    std::size_t read = 0;
    try {
      const EventStream::State result = open->stream->Read(
          to, room, &read, [&] { MHD_suspend_connection(connection); },
          [connection] { MHD_resume_connection(connection); });
      return result == EventStream::State::ended ? MHD_CONTENT_READER_END_OF_STREAM
                                                 : static_cast<ssize_t>(read);
    } catch (const std::exception&) {
      return MHD_CONTENT_READER_END_WITH_ERROR;
    }
  }

  static void CloseStream(void* state) noexcept {
    const std::unique_ptr<OpenStream> open(static_cast<OpenStream*>(state));
    open->watch.CloseStream(open->stream);
  }

  static MHD_Result Queue(MHD_Connection* connection, const Answer& answer) {
    MHD_Response* const response = MHD_create_response_from_buffer(
        answer.text.size(), const_cast<char*>(answer.text.data()), MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    return Send(connection, answer.status, answer.contentType, answer.headers, response);
  }

  static MHD_Result Send(MHD_Connection* connection, unsigned status, std::string_view contentType,
                         const std::vector<std::pair<const char*, std::string>>& headers,
                         MHD_Response* response) {
    const auto add = [&](const char* name, const char* value) {
      MHD_add_response_header(response, name, value);
    };
    add(MHD_HTTP_HEADER_CONTENT_TYPE, std::string(contentType).c_str());
    add(MHD_HTTP_HEADER_CONTENT_SECURITY_POLICY, contentPolicy);
    add(MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    add("X-Content-Type-Options", "nosniff");
    add("Referrer-Policy", "same-origin");
    add("Cross-Origin-Resource-Policy", "same-origin");
    add("Cross-Origin-Opener-Policy", "same-origin");
    for (const auto& [name, value] : headers) add(name, value.c_str());
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
  }

  const ReportServer& server_;
  PageWatch& watch_;
  const ListenSocket listening_;
  const bool isTls_;
  const PageAccess access_;
  ConnectionWatch connections_;
  MHD_Daemon* daemon_ = nullptr;
};

void CheckPageAddress(const PageServerOptions& options) {
  RequireToken(FindListenAddress(options.address, options.port), options.token);
}

PageServer::PageServer(const PageServerOptions& options, const ReportServer& server, PageWatch& watch)
    : impl_(std::make_unique<Impl>(options, server, watch)) {}
PageServer::~PageServer() = default;

std::uint16_t PageServer::Port() const { return impl_->Port(); }
std::string PageServer::Url() const { return impl_->Url(); }
std::string PageServer::Warning() const { return impl_->Warning(); }

}  // namespace veld_report::server
