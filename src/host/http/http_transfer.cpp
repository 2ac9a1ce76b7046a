#include "host/http/http_transfer.h"

#include <algorithm>
#include <utility>

#include "host/base/printable.h"
#include "host/base/redact.h"
#include "host/http/curl_codes.h"
#include "host/http/own_headers.h"
#include "host/http/request_body.h"
#include "host/platform/sockets.h"

namespace veld_report::host {
namespace {

// libcurl sends a body below this size together with the head, if it has the whole of it. Otherwise the head
// is a packet of its own, for which the server wakes up once more.
constexpr std::uint64_t maxWholeBody = 64 << 10;

struct UrlCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// The scheme in lower case, or nothing if the text isn't a url with a scheme.
std::string SchemeOf(const std::string& text) {
  const std::unique_ptr<CURLU, UrlCleanup> url(curl_url());
  if (!url) throw std::bad_alloc();
  // A NUL would end the url early.
  if (text.find('\0') != std::string::npos) return {};
  if (curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) return {};
  char* scheme = nullptr;
  if (curl_url_get(url.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, decltype(&curl_free)> owner(scheme, &curl_free);
  return scheme;
}

// Of an answer, for the sentence that says what the server didn't like.
constexpr std::size_t keptAnswerBytes = 256;
constexpr std::size_t shownAnswerBytes = 200;

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

}  // namespace

HttpTransfer::HttpTransfer(zel::Ref<HttpRequest> request, EncodedBody body, const HttpShared& shared,
                           std::shared_ptr<const CertificateTable> certificates, Clock::TimePoint startedAt)
    : request_(std::move(request)),
      shared_(shared),
      certificates_(std::move(certificates)),
      startedAt_(startedAt),
      coding_(body.coding),
      wholeBody_(std::move(body.bytes)),
      nextLook_(std::chrono::steady_clock::now() + std::chrono::milliseconds(shared.options.stallTimeoutMs)),
      easy_(curl_easy_init()) {
  if (!easy_) throw std::bad_alloc();
  Set(CURLOPT_ERRORBUFFER, errorText_.data());
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_SOCKOPTFUNCTION, &HttpTransfer::PrepareSocket);
  // Names are resolved on a thread of libcurl. Without this, ending a request would wait for that thread.
  Set(CURLOPT_QUICK_EXIT, 1L);
  SetUrl();
  SetHeaders();
  SetBody();
  SetLimits();
  SetProxy();
  SetTls();
}

int HttpTransfer::PrepareSocket(void*, curl_socket_t socket, curlsocktype) noexcept {
  host::PrepareSocket(static_cast<std::intptr_t>(socket));
  return CURL_SOCKOPT_OK;
}

template <class Value>
void HttpTransfer::Set(CURLoption option, Value value) {
  const CURLcode result = curl_easy_setopt(easy_.get(), option, value);
  if (result == CURLE_OK) return;
  throw HttpTransferRefused{CodeOf(result),
                            std::string("libcurl refuses an option: ") + curl_easy_strerror(result)};
}

void HttpTransfer::SetUrl() {
  const std::string& url = request_->GetContent().urlText;
  scheme_ = SchemeOf(url);
  if (scheme_ != "http" && scheme_ != "https") {
    throw HttpTransferRefused{zel::eInvalidArgument, "the url isn't a valid one of http or https"};
  }
  Set(CURLOPT_URL, url.c_str());
  Set(CURLOPT_PROTOCOLS_STR, "http,https");
  Set(CURLOPT_FOLLOWLOCATION, 0L);
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  if (shared_.options.resolve.empty()) return;
  for (const std::string& line : shared_.options.resolve) Append(&resolve_, line);
  Set(CURLOPT_RESOLVE, resolve_.get());
}

void HttpTransfer::SetHeaders() {
  // Otherwise a large body would wait for a permission that few servers give.
  Append(&headers_, "Expect:");
  for (const std::string& line : request_->GetContent().headers) {
    if (!IsHeaderLine(line)) throw HttpTransferRefused{zel::eInvalidArgument, "a header isn't valid"};
    Append(&headers_, line);
  }
  if (coding_ != BodyCoding::none) Append(&headers_, std::string("Content-Encoding: ") + NameOf(coding_));
  for (const std::string& line : shared_.options.headers) Append(&headers_, line);
  if (!shared_.options.userAgent.empty()) Set(CURLOPT_USERAGENT, shared_.options.userAgent.c_str());
  Set(CURLOPT_HTTPHEADER, headers_.get());
}

void HttpTransfer::SetBody() {
  zel::IIO& body = *request_->GetContent().body;
  bodySize_ = coding_ == BodyCoding::none ? BodySize(body) : wholeBody_.size();
  Set(CURLOPT_POST, 1L);
  Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodySize_));
  if (coding_ == BodyCoding::none && bodySize_ < maxWholeBody) wholeBody_ = host::ReadBody(body, bodySize_);
  if (coding_ != BodyCoding::none || bodySize_ < maxWholeBody) {
    Set(CURLOPT_POSTFIELDS, wholeBody_.c_str());
  } else {
    Set(CURLOPT_READFUNCTION, &HttpTransfer::ReadBody);
    Set(CURLOPT_READDATA, static_cast<void*>(this));
    Set(CURLOPT_SEEKFUNCTION, &HttpTransfer::SeekBody);
    Set(CURLOPT_SEEKDATA, static_cast<void*>(this));
  }
  Set(CURLOPT_HEADERFUNCTION, &HttpTransfer::TakeHeader);
  Set(CURLOPT_HEADERDATA, static_cast<void*>(this));
  Set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  Set(CURLOPT_WRITEFUNCTION, &HttpTransfer::TakeAnswer);
  Set(CURLOPT_WRITEDATA, static_cast<void*>(this));
}

void HttpTransfer::SetLimits() {
  Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(shared_.options.connectTimeoutMs));
  Set(CURLOPT_TIMEOUT_MS, static_cast<long>(shared_.options.totalTimeoutMs));
}

bool HttpTransfer::HasStalled(std::chrono::steady_clock::time_point now) {
  if (now < nextLook_) return false;
  curl_off_t sent = 0;
  curl_off_t received = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
  curl_easy_getinfo(easy_.get(), CURLINFO_SIZE_DOWNLOAD_T, &received);
  const std::uint64_t moved = static_cast<std::uint64_t>(sent) + static_cast<std::uint64_t>(received);
  const HttpClientOptions& options = shared_.options;
  const std::uint64_t enough = std::uint64_t{options.stallBytesPerSecond} * options.stallTimeoutMs / 1000;
  if (moved - moved_ < enough) return true;
  moved_ = moved;
  nextLook_ = now + std::chrono::milliseconds(options.stallTimeoutMs);
  return false;
}

void HttpTransfer::SetProxy() {
  // Both are always set, so that libcurl doesn't read the environment.
  Set(CURLOPT_PROXY, shared_.proxy.For(scheme_).c_str());
  Set(CURLOPT_NOPROXY, shared_.proxy.noProxy.c_str());
}

void HttpTransfer::SetTls() {
  Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  Set(CURLOPT_PROXY_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Schannel asks whether a certificate was revoked. An authority of one's own has no list of those, and the
  // server of a public one may be down: neither is a reason to refuse. OpenSSL doesn't ask.
  Set(CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_REVOKE_BEST_EFFORT));
  Set(CURLOPT_PROXY_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_REVOKE_BEST_EFFORT));
  SetTrust();
  SetOwnTrust();
}

void HttpTransfer::SetTrust() {
  const HttpClientOptions& options = shared_.options;
  if (options.caFile.empty() && options.caDirectory.empty()) return;
  for (const CURLoption file : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO}) Set(file, OrNull(options.caFile));
  for (const CURLoption folder : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH})
    SetTrustFolder(folder, options.caDirectory);
}

// Empty for none. Schannel has no such options; then there is nothing to switch off.
void HttpTransfer::SetTrustFolder(CURLoption option, const std::string& folder) {
  const char* const none = nullptr;
  if (folder.empty() && curl_easy_setopt(easy_.get(), option, none) == CURLE_NOT_BUILT_IN) return;
  Set(option, OrNull(folder));
}

// Replaces the trusted certificates by the url's own, if it has any.
void HttpTransfer::SetOwnTrust() {
  if (!certificates_) return;
  const auto own = certificates_->find(request_->GetContent().urlText);
  if (own == certificates_->end()) return;
  const CertificateSet& set = own->second;
  if (!set.pins.empty()) Set(CURLOPT_PINNEDPUBLICKEY, set.pins.c_str());
  if (set.caPem.empty()) {
    Set(CURLOPT_SSL_VERIFYPEER, 0L);
    Set(CURLOPT_SSL_VERIFYHOST, 0L);
    return;
  }
  // Otherwise the folder of trusted certificates would count in addition to the blob.
  Set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  SetTrustFolder(CURLOPT_CAPATH, {});
  curl_blob blob = {const_cast<char*>(set.caPem.data()), set.caPem.size(), CURL_BLOB_NOCOPY};
  Set(CURLOPT_CAINFO_BLOB, &blob);
}

void HttpTransfer::Append(List* list, const std::string& line) {
  curl_slist* const longer = curl_slist_append(list->get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  // The head only changes if the list was empty.
  (void)list->release();
  list->reset(longer);
}

std::size_t HttpTransfer::ReadBody(char* buffer, std::size_t size, std::size_t count, void* self) noexcept {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  std::uint32_t bytesRead = 0;
  const auto room = static_cast<std::uint32_t>(std::min<std::size_t>(size * count, UINT32_MAX));
  transfer.bodyFailure_ =
      Guarded([&] { return transfer.request_->GetContent().body->Read(buffer, room, &bytesRead); });
  // If a body ends early, the server would wait for the rest.
  const bool cut = bytesRead == 0 && transfer.bodyPosition_ < transfer.bodySize_;
  if (cut && !zel::Failed(transfer.bodyFailure_)) transfer.bodyFailure_ = zel::eUnexpected;
  if (zel::Failed(transfer.bodyFailure_)) return CURL_READFUNC_ABORT;
  transfer.bodyPosition_ += bytesRead;
  return bytesRead;
}

// libcurl rewinds to the start if a reused connection turns out to be closed.
int HttpTransfer::SeekBody(void* self, curl_off_t offset, int origin) noexcept {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  std::uint64_t position = 0;
  const zel::ResultCode code = Guarded([&] {
    return transfer.request_->GetContent().body->Seek(static_cast<std::uint32_t>(origin), offset, &position);
  });
  transfer.bodyPosition_ = position;
  return zel::Failed(code) ? CURL_SEEKFUNC_FAIL : CURL_SEEKFUNC_OK;
}

// libcurl takes an answer whose headers break off for a complete one. An interim answer (100) has its own
// empty line before the real answer starts, and trailers follow after that.
std::size_t HttpTransfer::TakeHeader(char* line, std::size_t size, std::size_t count, void* self) noexcept {
  const std::string_view text(line, size * count);
  bool& complete = static_cast<HttpTransfer*>(self)->headersComplete_;
  if (text.starts_with("HTTP/")) complete = false;
  if (text == "\r\n" || text == "\n") complete = true;
  return size * count;
}

std::size_t HttpTransfer::TakeAnswer(char* data, std::size_t size, std::size_t count, void* self) noexcept {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  std::string& begin = transfer.answerBegin_;
  try {
    begin.append(data, std::min(size * count, keptAnswerBytes - begin.size()));
  } catch (...) {
    // The status says enough.
  }
  transfer.answerBytes_ += size * count;
  return transfer.answerBytes_ > transfer.shared_.options.answerLimitBytes ? 0 : size * count;
}

HttpOutcome HttpTransfer::Outcome(CURLcode result) const {
  HttpOutcome outcome;
  if (result != CURLE_OK) {
    outcome.code = CodeOf(result);
    outcome.error = SentenceOf(result, WithoutCredentials(errorText_.data()));
    if (zel::Failed(bodyFailure_)) {
      outcome.code = bodyFailure_;
      outcome.local = true;
      outcome.error = unreadableBody;
    } else if (answerBytes_ > shared_.options.answerLimitBytes) {
      outcome.error =
          "the answer is longer than " + std::to_string(shared_.options.answerLimitBytes) + " bytes";
    }
    return outcome;
  }
  if (!headersComplete_) {
    outcome.code = eMediaError;
    outcome.error = "the answer ended inside its headers";
    return outcome;
  }
  long status = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  outcome.status = static_cast<std::uint16_t>(status);
  if (status != 200 && !answerBegin_.empty()) {
    const std::size_t end = answerBegin_.find_last_not_of(" \r\n") + 1;
    outcome.answer = Printable(WithoutCredentials(answerBegin_.substr(0, end)), shownAnswerBytes);
  }
  curl_header* retryAfter = nullptr;
  if (curl_easy_header(easy_.get(), "Retry-After", 0, CURLH_HEADER, -1, &retryAfter) == CURLHE_OK) {
    outcome.retryAfter = retryAfter->value;
  }
  return outcome;
}

}  // namespace veld_report::host
