// Selects the proxy of a request.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/http/http_client.h"

namespace veld_report::host {

// Read once: libcurl itself would read the environment for each request, while an application may be changing
// it on another thread.
struct ProxySettings {
  std::string forHttp;  // empty: none
  std::string forHttps;
  std::string noProxy;  // hosts that are reached directly

  const std::string& For(std::string_view scheme) const { return scheme == "https" ? forHttps : forHttp; }
};

// `environment` returns a variable's value, or null. Lower-case names take precedence. HTTP_PROXY in upper
// case is ignored, since a web server passes a request's header "Proxy" to its children under that name.
ProxySettings ReadProxySettings(const HttpClientOptions& options,
                                const std::function<const char*(const char*)>& environment);

}  // namespace veld_report::host
