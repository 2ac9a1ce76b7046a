// The host's asynchronous HTTP client. Its factory is required in Construct.
#pragma once

#include <cstddef>

#include "contract/io.h"
#include "types/basic_string.h"
#include "types/object.h"
#include "types/ref.h"
#include "types/vector.h"

namespace network_services {

struct HttpHeader {
  zel::string name;
  zel::string value;
};
static_assert(sizeof(HttpHeader) == 96 && offsetof(HttpHeader, value) == 48);

// The options of every request. The sender fills `headers` with one row, "Content-Type: application/json",
// and sets `shortParameter` to 30. The other fields are for the client's own use and are 0.
struct HttpRequestOptions {
  zel::vector_t<HttpHeader> headers;
  std::uint64_t wordParameter0 = 0;
  std::uint16_t shortParameter = 30;
  std::uint64_t wordParameter1 = 0;
  std::uint64_t wordParameter2 = 0;
  zel::Ref<zel::IObject> objectParameter;
  zel::wstring wideParameter;
};
static_assert(sizeof(HttpRequestOptions) == 120);
static_assert(offsetof(HttpRequestOptions, wordParameter0) == 32 &&
              offsetof(HttpRequestOptions, shortParameter) == 40);
static_assert(offsetof(HttpRequestOptions, wordParameter1) == 48 &&
              offsetof(HttpRequestOptions, wordParameter2) == 56);
static_assert(offsetof(HttpRequestOptions, objectParameter) == 64 &&
              offsetof(HttpRequestOptions, wideParameter) == 72);

// The certificates of one url: pointers to the first one and past the last one. The elements are the host's
// own type.
struct CertificateRow {
  const void* begin;
  const void* end;
};
struct CertificateRange {
  const CertificateRow* begin;
  const CertificateRow* end;
};
static_assert(sizeof(CertificateRow) == 16 && sizeof(CertificateRange) == 16);

// The offset of the HTTP status, an unsigned 16-bit value, in the client's answer record.
inline constexpr std::size_t responseStatusOffset = 80;

// Reads the HTTP status from a client's answer record.
inline std::uint16_t ResponseStatus(const void* response) {
  return *reinterpret_cast<const std::uint16_t*>(static_cast<const char*>(response) + responseStatusOffset);
}

// Implemented by the module, with one object per request. The client calls exactly one of the two operations,
// exactly once, at any time and on any thread, and holds a reference until then.
class IAsyncHttpRequestCallback : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x880c454b;
  // The client received an HTTP answer. `response`: the client's record of it, valid during the call.
  virtual zel::ResultCode OnRequestCompleted(const zel::wstring& url, const void* response) = 0;
  // There was no answer.
  virtual zel::ResultCode OnRequestFailed(const zel::wstring& url, zel::ResultCode code) = 0;

 protected:
  ~IAsyncHttpRequestCallback() = default;
};

// A request in flight. Threads: Wait on the sender's timer thread, Cancel on another one.
class IHttpRequestHandle : public zel::IObject {
 public:
  virtual zel::ResultCode ReservedRequestOperation() = 0;
  // Blocks until the request has ended or the time is up. A negative result means that it didn't end well. It
  // must not return before the callback's operation has, or the totals of a cycle count the packet twice.
  virtual zel::ResultCode Wait(std::uint32_t timeoutMs) = 0;
  // Ends the request, so that a Wait on another thread returns. It must not block: the sender holds a lock.
  virtual zel::ResultCode Cancel() = 0;

 protected:
  ~IHttpRequestHandle() = default;
};

class IHttpClient : public zel::IObject {
 public:
  virtual zel::ResultCode ReservedClientOperation0() = 0;
  virtual zel::ResultCode ReservedClientOperation1() = 0;
  virtual zel::ResultCode ReservedClientOperation2() = 0;
  virtual zel::ResultCode ReservedClientOperation3() = 0;
  virtual zel::ResultCode ReservedClientOperation4() = 0;
  // Starts a request and returns at once. `requestKind` points to 1, a request with a body. `body` is at
  // position 0; the client takes its own references to it and to `callback`. `reserved` is null. On success
  // `*request` holds a reference for the caller; on failure the callback isn't called.
  virtual zel::ResultCode MakeRequestAsync(const zel::wstring& url, const HttpRequestOptions& options,
                                           const std::uint32_t* requestKind, zel::IIO* body, void* reserved,
                                           IAsyncHttpRequestCallback* callback,
                                           IHttpRequestHandle** request) = 0;

 protected:
  ~IHttpClient() = default;
};

class IHttpClientFactory : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xf623e84a;
  virtual zel::ResultCode CreateClient(IHttpClient** out) = 0;

 protected:
  ~IHttpClientFactory() = default;
};

// A second interface of the client object. Without it settings are refused.
class IHttpClientCertificates : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0xecae8144;
  // Takes the certificates of all urls, one row for each entry of SenderSettings::urls. The table is only
  // valid during the call.
  virtual zel::ResultCode SetCertificates(const CertificateRange* table) = 0;

 protected:
  ~IHttpClientCertificates() = default;
};

}  // namespace network_services
