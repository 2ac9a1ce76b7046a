// Which proxy a request takes.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "host/http/http_client.h"

namespace veld_report::host {

// Read once: libcurl itself would read the environment for each request, which an application may be changing
// on another thread.
struct ProxySettings {
  std::string forHttp;  // empty: none
  std::string forHttps;
  std::string noProxy;  // hosts that are reached without one

  const std::string& For(std::string_view scheme) const { return scheme == "https" ? forHttps : forHttp; }
};

// `environment` gives a variable's value, or null. Lower-case names go before upper-case ones; HTTP_PROXY in
// upper case isn't looked at, since a web server hands a request's header "Proxy" to its children under it.
ProxySettings ReadProxySettings(const HttpClientOptions& options,
                                const std::function<const char*(const char*)>& environment);

}  // namespace veld_report::host
