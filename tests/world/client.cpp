#include "tests/world/client.h"

#include <algorithm>
#include <cstring>

#include "tests/server/message_builder.h"
#include "tests/world/queues.h"
#include "tests/world/services.h"

namespace veld_report::world {
namespace {

// "{"alg":"none"}" and a zero byte.
constexpr std::string_view unsignedBlock("{\"alg\":\"none\"}", 15);

}  // namespace

const char certificates[32] = {};

zel::ResultCode Request::Wait(std::uint32_t timeoutMs) {
  Use();
  Call call(host, Op::wait, 0, id, timeoutMs);
  if (call.Planned() != 0) return call.Done(call.Planned());
  const std::uint64_t limitMs = host.nowMs + timeoutMs;
  if (cancelled_) {
    if (callback) {
      failure = zel::eOperationCancelled;
      host.Complete(*this);
    }
    return call.Done(zel::eOperationCancelled);
  }
  host.AdvanceRequests(callback ? std::min(dueMs, limitMs) : host.nowMs);
  return call.Done(callback && waitResult == 0 ? zel::eOperationTimeout : waitResult);
}

zel::ResultCode Request::Cancel() {
  Use();
  Call call(host, Op::cancel, 1, id);
  cancelled_ = true;
  return call.Done(call.Planned());
}

void Request::Report() {
  alignas(8) char response[96];
  std::memset(response, 0x7f, sizeof response);
  std::memcpy(response + network_services::responseStatusOffset, &status, sizeof status);
  host.open.erase(std::find(host.open.begin(), host.open.end(), this));
  const zel::wstring wide{std::u16string_view(Url(url))};
  auto kept = std::move(callback);
  body.Reset();
  const Inside inside;
  try {
    const auto code =
        failure != 0 ? kept->OnRequestFailed(wide, failure) : kept->OnRequestCompleted(wide, response);
    if (code != 0) host.Fail(invariant::calls, "a callback doesn't answer 0");
  } catch (const std::exception&) {
    // What a callback throws is nobody's business.
  }
  kept.Reset();
}

zel::ResultCode Client::QueryInterface(zel::InterfaceId interfaceId, void** out) {
  if (interfaceId != network_services::IHttpClientCertificates::iid)
    return Fake::QueryInterface(interfaceId, out);
  Call call(host, Op::queryCertificates, 0);
  *out = nullptr;
  return call.Done(call.Refused() ? call.Planned() : Fake::QueryInterface(interfaceId, out));
}

zel::ResultCode Client::SetCertificates(const network_services::CertificateRange* table) {
  Use();
  Call call(host, Op::setCertificates, 0);
  const auto rows = static_cast<std::size_t>(table->end - table->begin);
  bool right = rows == host.settings->rows.size();
  for (std::size_t i = 0; i < rows && right; ++i) {
    right = table->begin[i].begin == certificates + i && table->begin[i].end == certificates + i + 1;
  }
  if (!right) host.Fail(invariant::calls, "other certificates than those of the settings");
  return call.Done(call.Planned());
}

void Client::CheckRequest(const zel::wstring& url, zel::IIO& body, Request& request) {
  std::uint64_t size = 0;
  std::uint64_t position = 1;
  std::uint32_t count = 0;
  if (body.GetSize(&size) != 0 || body.GetPosition(&position) != 0 || position != 0 || !host.walking) {
    return host.Fail(invariant::body, "a body without size, not at position 0, or without a reader");
  }
  body_.resize(size);
  if (body.Read(body_.data(), static_cast<std::uint32_t>(size), &count) != 0 || count != size) {
    return host.Fail(invariant::body, "a body that can't be read");
  }
  request.reader = host.walking;
  request.url = std::min(host.walking->name, urlCount - 1);
  request.tokens = std::move(host.walking->unsent);
  host.walking->unsent.clear();
  if (url.View() != std::u16string_view(Url(request.url))) host.Fail(invariant::body, "another queue's url");
  if (!std::is_sorted(request.tokens.begin(), request.tokens.end())) {
    host.Fail(invariant::order, "a request with a newer item before an older one");
  }
  CheckBody(request, body_);
}

void Client::CheckBody(const Request& request, std::string_view body) {
  StoredQueue& queue = host.queues[static_cast<std::size_t>(request.url)];
  expected_ = "{\"array\":[";
  for (const std::uint64_t token : request.tokens) {
    if (token != request.tokens.front()) expected_ += ',';
    const auto item = Host::Find(queue, token);
    if (item != queue.items.end()) expected_ += item->bytes;
  }
  expected_ += "]}";
  const std::string_view block = host.signed_ ? std::string_view(host.signature) : unsignedBlock;
  if (body != server_test::Body(expected_, block))
    host.Fail(invariant::body, "not the body of the items: " + std::string(body));
  if (host.signed_ && host.signedPrint != Print(expected_))
    host.Fail(invariant::body, "another text is signed");
  host.signed_ = false;
}

zel::ResultCode Client::MakeRequestAsync(const zel::wstring& url,
                                         const network_services::HttpRequestOptions& options,
                                         const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                         network_services::IAsyncHttpRequestCallback* callback,
                                         network_services::IHttpRequestHandle** request) {
  const Outside outside;
  Use();
  auto* made = host.Make<Request>();
  made->id = ++host.requests;
  CheckRequest(url, *body, *made);
  const bool options_ = options.headers.size() == 1 && options.headers[0].name.View() == "Content-Type" &&
                        options.headers[0].value.View() == "application/json" &&
                        options.headers.allocator.Service() == &host.services->allocator &&
                        options.headers[0].value.allocator.Service() == &host.services->allocator &&
                        options.shortParameter == 30;
  if (!options_ || *requestKind != 1 || reserved || *request)
    host.Fail(invariant::calls, "arguments of a request");
  made->references = 0;
  Call call(host, Op::makeRequest, 0, static_cast<std::uint64_t>(made->url), made->id);
  if (call.Refused()) return call.Done(call.Planned());
  made->references = 1;
  Step answer{.kind = Step::Kind::answer, .a = 200, .b = 1};
  if (!host.answers.empty()) {
    answer = host.answers.front();
    host.answers.pop_front();
  }
  made->status = static_cast<std::uint16_t>(answer.a);
  if (answer.a <= 1) made->failure = answer.a;
  made->dueMs = host.nowMs + static_cast<std::uint64_t>(std::max(answer.b, 0));
  made->waitResult = answer.c;
  made->body = zel::Ref<zel::IIO>(body);
  made->callback = zel::Ref(callback);
  host.open.push_back(made);
  *request = made;
  call.Done(call.Planned());
  if (answer.b < 0) host.Complete(*made);
  return call.Planned();
}

zel::ResultCode ClientFactory::CreateClient(network_services::IHttpClient** out) {
  Use();
  Call call(host, Op::createClient, 0);
  if (call.Refused()) return call.Done(call.Planned());
  client.AddRef();
  *out = &client;
  return call.Done(call.Planned());
}

}  // namespace veld_report::world
