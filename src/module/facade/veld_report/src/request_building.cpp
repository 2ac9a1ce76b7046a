// One request: its body, its start, and the wait for it.
#include "facade/veld_report/src/throw_sites.h"
#include "facade/veld_report/src/veld_report_sender.h"
#include "formats/base64.h"
#include "formats/message.h"
#include "formats/payload_text.h"
#include "memory_io/memory_io.h"
#include "orvel_tools/json_helpers.h"
#include "trace/trace_stream.h"

namespace orvel::veld_report {
namespace {

constexpr std::uint32_t requestLimitMs = 5000;
// A request with a body.
constexpr std::uint32_t requestKind = 1;

const std::uint8_t* Bytes(const char* text) { return reinterpret_cast<const std::uint8_t*>(text); }

}  // namespace

void VeldReportSenderImpl::MakeRequest(const zel::vector_t<zel::string>& packet, const zel::wstring& url,
                                       network_services::IAsyncHttpRequestCallback* callback,
                                       zel::Ref<network_services::IHttpRequestHandle>& request) {
  zel::TraceLine(tracer.Get(), zel::normalLevel, [&](zel::TraceStream& line) {
    line.PutText("MakeRequest for url ").PutWide(url);
    line.PutText(" started. Payload size is ").PutUInt64(packet.size());
  });
  const zel::string body = BuildBody(packet);
  // The client's stream is a copy, so that the request doesn't depend on the sender's strings.
  zel::Ref<zel::IIO> stream;
  Require(zel::memory_io::CreateIOFromBuffer(body, stream.Out()), site::createBodyStream);
  Require(httpClient->MakeRequestAsync(url, requestOptions, &requestKind, stream.Get(), nullptr, callback,
                                       request.Out()),
          site::makeRequest);
}

zel::string VeldReportSenderImpl::BuildBody(const zel::vector_t<zel::string>& packet) {
  const zel::string payloadText = BuildPayloadText(packet);
  Message message;
  Base64Encode(Bytes(payloadText.data), payloadText.size, &message.payload);
  const zel::vector_t<std::uint8_t> block = SignatureBlock(payloadText);
  Signature signature;
  // An empty signature isn't replaced by the unsigned form: "protected" stays empty.
  if (!block.empty()) Base64Encode(block.first, block.size(), &signature.protected_);
  message.signatures.push_back(signature);
  return orvel_tools::SerializeMessageToJson(locator.Get(), message);
}

zel::vector_t<std::uint8_t> VeldReportSenderImpl::SignatureBlock(const zel::string& payloadText) {
  zel::vector_t<std::uint8_t> block;
  if (signatureProvider) {
    const zel::ByteRange payload{Bytes(payloadText.data), Bytes(payloadText.data) + payloadText.size};
    if (!zel::Failed(signatureProvider->Sign(&payload, &block))) return block;
  }
  // Replaces whatever a failed provider left.
  block.assign(unsignedSignatureBlock, sizeof(unsignedSignatureBlock));
  return block;
}

zel::ResultCode VeldReportSenderImpl::WaitForRequest(network_services::IHttpRequestHandle* request) {
  struct Registration {
    Registration(VeldReportSenderImpl& owner, network_services::IHttpRequestHandle* handle) : sender(owner) {
      sender.SetCurrentRequest(handle);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { sender.SetCurrentRequest(nullptr); }
    VeldReportSenderImpl& sender;
  };
  const Registration registration(*this, request);
  return request->Wait(requestLimitMs);
}

// The request for FinalRelease to cancel; null for none.
void VeldReportSenderImpl::SetCurrentRequest(network_services::IHttpRequestHandle* request) {
  const std::lock_guard lock(requestLock);
  currentRequest = zel::Ref<network_services::IHttpRequestHandle>(request);
}

}  // namespace orvel::veld_report
