// HttpTransfer: one request as libcurl handles it.
#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>

#include "host/http/body_encoder.h"
#include "host/http/certificates.h"
#include "host/http/http_outcome.h"
#include "host/http/http_request.h"
#include "host/http/http_shared.h"

namespace veld_report::host {

// For the engine's thread. The engine adds the handle to its multi handle and removes it before the transfer
// ends.
class HttpTransfer {
 public:
  // `certificates` may be null: those of the options or the system are trusted. Throws HttpTransferRefused.
  HttpTransfer(zel::Ref<HttpRequest> request, EncodedBody body, const HttpShared& shared,
               std::shared_ptr<const CertificateTable> certificates, Clock::TimePoint startedAt);
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  CURL* Handle() const { return easy_.get(); }
  HttpRequest& Request() const { return *request_; }
  Clock::TimePoint StartedAt() const { return startedAt_; }
  // Of the body as it is sent.
  BodyCoding Coding() const { return coding_; }
  HttpOutcome Outcome(CURLcode result) const;
  // To be asked at NextLook, and then again at the next one. True if the limit of progress isn't met.
  bool HasStalled(std::chrono::steady_clock::time_point now);
  std::chrono::steady_clock::time_point NextLook() const { return nextLook_; }

 private:
  template <class Value>
  void Set(CURLoption option, Value value);
  void SetUrl();
  void SetHeaders();
  void SetBody();
  void SetLimits();
  void SetProxy();
  void SetTls();
  void SetTrust();
  void SetTrustFolder(CURLoption option, const std::string& folder);
  void SetOwnTrust();

  static std::size_t ReadBody(char* buffer, std::size_t size, std::size_t count, void* self) noexcept;
  static int SeekBody(void* self, curl_off_t offset, int origin) noexcept;
  static std::size_t TakeHeader(char* line, std::size_t size, std::size_t count, void* self) noexcept;
  static std::size_t TakeAnswer(char* data, std::size_t size, std::size_t count, void* self) noexcept;

  struct EasyCleanup {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct ListCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  using List = std::unique_ptr<curl_slist, ListCleanup>;
  static int PrepareSocket(void* self, curl_socket_t socket, curlsocktype purpose) noexcept;
  static void Append(List* list, const std::string& line);

  const zel::Ref<HttpRequest> request_;
  const HttpShared& shared_;
  const std::shared_ptr<const CertificateTable> certificates_;
  const Clock::TimePoint startedAt_;
  const BodyCoding coding_;
  std::string scheme_;
  bool headersComplete_ = false;
  std::uint64_t answerBytes_ = 0;
  std::string answerBegin_;
  std::uint64_t bodySize_ = 0;
  std::string wholeBody_;  // of a small one, or one that is compressed
  std::uint64_t bodyPosition_ = 0;
  zel::ResultCode bodyFailure_ = zel::sOk;
  std::uint64_t moved_ = 0;  // bytes sent and received at the last look
  std::chrono::steady_clock::time_point nextLook_;
  std::array<char, CURL_ERROR_SIZE> errorText_ = {};
  List headers_;
  List resolve_;
  // Declared last, so that libcurl is done before what it points to is destroyed.
  std::unique_ptr<CURL, EasyCleanup> easy_;
};

}  // namespace veld_report::host
