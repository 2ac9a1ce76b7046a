#include "host/http/proxy.h"

#include <initializer_list>

namespace veld_report::host {

ProxySettings ReadProxySettings(const HttpClientOptions& options,
                                const std::function<const char*(const char*)>& environment) {
  if (options.proxy) return {*options.proxy, *options.proxy, options.noProxy};
  const auto first = [&](std::initializer_list<const char*> names) -> std::string {
    for (const char* name : names) {
      const char* const value = environment(name);
      if (value && *value) return value;
    }
    return {};
  };
  return {first({"http_proxy", "all_proxy", "ALL_PROXY"}),
          first({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}),
          options.noProxy.empty() ? first({"no_proxy", "NO_PROXY"}) : options.noProxy};
}

}  // namespace veld_report::host
