#include "host/http/url_check.h"

#include <curl/curl.h>

#include <memory>
#include <new>

namespace veld_report::host {
namespace {

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::string Part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, &curl_free);
  return text;
}

// `host`: as libcurl normalises it, so an IPv4 address has four decimal parts.
bool IsLoopback(const std::string& host) {
  if (host == "localhost" || host == "[::1]") return true;
  return host.starts_with("127.") && host.find_first_not_of("0123456789.") == std::string::npos;
}

std::string WordsOf(CURLUcode result) {
  const char* what = "it has a form that no url has";
  if (result == CURLUE_BAD_PORT_NUMBER) what = "its port isn't a number up to 65535";
  if (result == CURLUE_NO_HOST) what = "it names no host";
  if (result == CURLUE_BAD_HOSTNAME || result == CURLUE_BAD_IPV6)
    what = "its host isn't a name or an address";
  return std::string(what) + " (" + curl_url_strerror(result) + ")";
}

}  // namespace

UrlCheck CheckUrl(const std::string& url) {
  // A NUL would end the url early.
  if (url.find('\0') != std::string::npos) return {.wrong = "it contains a NUL"};
  const Url parsed(curl_url(), &curl_url_cleanup);
  if (!parsed) throw std::bad_alloc();
  const CURLUcode result = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (result == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (result != CURLUE_OK) return {.wrong = WordsOf(result)};
  const std::string scheme = Part(parsed.get(), CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") return {.wrong = "its scheme isn't http or https"};
  return {.isTls = scheme == "https", .isLoopback = IsLoopback(Part(parsed.get(), CURLUPART_HOST))};
}

}  // namespace veld_report::host
