#include "tests/world/client.h"

#include <algorithm>
#include <cstring>

#include "tests/server/message_builder.h"
#include "tests/world/queues.h"
#include "tests/world/services.h"

namespace veld_report::world {
const char certificates[32] = {};

zel::ResultCode Request::Wait(std::uint32_t timeoutMs) {
  auto call = Begin(Op::wait, 0, id, timeoutMs);
  if (call.Planned() != 0) return call.Done();
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
  auto call = Begin(Op::cancel, 1, id);
  cancelled_ = true;
  return call.Done();
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

namespace {

class Client final : public Fake<network_services::IHttpClient, network_services::IHttpClientCertificates> {
 public:
  using Fake::Fake;
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    if (interfaceId != network_services::IHttpClientCertificates::iid)
      return Fake::QueryInterface(interfaceId, out);
    auto call = Begin(Op::queryCertificates, 0);
    *out = nullptr;
    return call.Done(call.Refused() ? call.Planned() : Fake::QueryInterface(interfaceId, out));
  }
  zel::ResultCode ReservedClientOperation0() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation1() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation2() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation3() override { return Reserved(); }
  zel::ResultCode ReservedClientOperation4() override { return Reserved(); }
  zel::ResultCode SetCertificates(const network_services::CertificateRange* table) override {
    auto call = Begin(Op::setCertificates, 0);
    const auto rows = static_cast<std::size_t>(table->end - table->begin);
    bool right = rows == host.settings->rows.size();
    for (std::size_t i = 0; i < rows && right; ++i) {
      right = table->begin[i].begin == certificates + i && table->begin[i].end == certificates + i + 1;
    }
    if (!right) host.Fail(invariant::calls, "other certificates than those of the settings");
    return call.Done();
  }
  zel::ResultCode MakeRequestAsync(const zel::wstring& url,
                                   const network_services::HttpRequestOptions& options,
                                   const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                   network_services::IAsyncHttpRequestCallback* callback,
                                   network_services::IHttpRequestHandle** request) override {
    const Outside outside;
    auto* made = host.Make<Request>();
    made->id = ++host.requests;
    CheckRequest(url, *body, *made);
    const bool right = options.headers.size() == 1 && options.headers[0].name.View() == "Content-Type" &&
                       options.headers[0].value.View() == "application/json" &&
                       options.headers.allocator.Service() == host.allocator &&
                       options.headers[0].value.allocator.Service() == host.allocator &&
                       options.shortParameter == 30;
    if (!right || *requestKind != 1 || reserved || *request)
      host.Fail(invariant::calls, "arguments of a request");
    made->references = 0;
    auto call = Begin(Op::makeRequest, 0, static_cast<std::uint64_t>(made->url), made->id);
    if (call.Refused()) return call.Done();
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
    if (answer.b < 0) host.Complete(*made);
    return call.Done();
  }

 private:
  // Fills url, reader and tokens, or fails.
  void CheckRequest(const zel::wstring& url, zel::IIO& body, Request& request) {
    std::uint64_t size = 0, position = 1;
    std::uint32_t count = 0;
    if (body.GetSize(&size) != 0 || body.GetPosition(&position) != 0 || position != 0 || !host.walking)
      return host.Fail(invariant::body, "a body without size, not at position 0, or without a reader");
    std::string text(size, '\0');
    if (body.Read(text.data(), static_cast<std::uint32_t>(size), &count) != 0 || count != size)
      return host.Fail(invariant::body, "a body that can't be read");
    request.reader = host.walking;
    request.url = std::min(host.walking->name, urlCount - 1);
    request.tokens = std::exchange(host.walking->unsent, {});
    if (url.View() != std::u16string_view(Url(request.url)))
      host.Fail(invariant::body, "another queue's url");
    if (!std::ranges::is_sorted(request.tokens))
      host.Fail(invariant::order, "a request with a newer item before an older one");
    CheckBody(request, text);
  }

  void CheckBody(const Request& request, const std::string& body) {
    StoredQueue& queue = host.QueueOf(request.url);
    std::string items;
    for (const std::uint64_t token : request.tokens) {
      const auto item = Host::Find(queue, token);
      items += (token == request.tokens.front() ? "" : ",") + (item != queue.items.end() ? item->bytes : "");
    }
    const std::string payload = "{\"array\":[" + items + "]}";
    if (body != (host.signed_ ? server_test::Body(payload, host.signature) : server_test::Body(payload)))
      host.Fail(invariant::body, "not the body of the items: " + body);
    if (host.signed_ && host.signedPrint != Print(payload))
      host.Fail(invariant::body, "another text is signed");
    host.signed_ = false;
  }
};

class ClientFactory final : public Fake<network_services::IHttpClientFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateClient(network_services::IHttpClient** out) override {
    auto call = Begin(Op::createClient, 0);
    if (!call.Refused()) *out = host.Make<Client>();
    return call.Done();
  }
};

}  // namespace

zel::IObject* MakeClientFactory(Host& host) { return host.Make<ClientFactory>(); }

}  // namespace veld_report::world
