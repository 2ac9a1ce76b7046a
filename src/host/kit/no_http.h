// The HTTP client of a sender that sends nothing: it has no thread, accepts all certificates, and refuses
// every request.
#pragma once

#include "contract/http.h"
#include "types/ref.h"

namespace veld_report::host {

zel::Ref<network_services::IHttpClientFactory> CreateNoHttp();

}  // namespace veld_report::host
