#include "server/framing_check.h"

#include <microhttpd.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

#include "host/base/printable.h"

namespace veld_report::server {
namespace {

struct Headers {
  std::vector<std::string_view> hosts, lengths, codings;
  std::string problem;
};

bool IsNameByte(char byte) {
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         marks.find(byte) != std::string_view::npos;
}

bool IsValueByte(char byte) {
  return byte == '\t' || (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7f);
}

bool IsNamed(std::string_view name, const char* wanted) {
  return std::string_view(wanted).size() == name.size() && strncasecmp(name.data(), wanted, name.size()) == 0;
}

MHD_Result Collect(void* into, MHD_ValueKind, const char* name, std::size_t nameSize, const char* value,
                   std::size_t valueSize) {
  auto* const headers = static_cast<Headers*>(into);
  const std::string_view key(name, nameSize), text(value ? value : "", value ? valueSize : 0);
  if (key.empty() || !std::all_of(key.begin(), key.end(), IsNameByte))
    headers->problem = "the request has a header of the name " + host::Printable(key);
  else if (!std::all_of(text.begin(), text.end(), IsValueByte))
    headers->problem = "the header " + std::string(key) + " has a control character";
  else if (IsNamed(key, MHD_HTTP_HEADER_HOST))
    headers->hosts.push_back(text);
  else if (IsNamed(key, MHD_HTTP_HEADER_CONTENT_LENGTH))
    headers->lengths.push_back(text);
  else if (IsNamed(key, MHD_HTTP_HEADER_TRANSFER_ENCODING))
    headers->codings.push_back(text);
  return headers->problem.empty() ? MHD_YES : MHD_NO;
}

bool IsLength(std::string_view text) {
  std::uint64_t length = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), length);
  return code == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string FramingProblem(MHD_Connection* connection, std::string_view version) {
  Headers headers;
  MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &Collect, &headers);
  if (!headers.problem.empty()) return headers.problem;
  if (headers.hosts.size() > 1) return "the request has more than one Host";
  if (headers.hosts.empty() && version != MHD_HTTP_VERSION_1_0) return "the request has no Host";
  if (headers.lengths.size() > 1) return "the request has more than one Content-Length";
  if (!headers.lengths.empty() && !IsLength(headers.lengths[0]))
    return "the Content-Length is " + host::Printable(headers.lengths[0]) + " instead of a number";
  if (headers.codings.empty()) return {};
  if (!headers.lengths.empty()) return "the request has both a Content-Length and a Transfer-Encoding";
  if (headers.codings.size() > 1 || !IsNamed(headers.codings[0], "chunked"))
    return "the Transfer-Encoding is " + host::Printable(headers.codings.back()) +
           "; only chunked is accepted";
  if (version == MHD_HTTP_VERSION_1_0) return "a request of HTTP/1.0 has a Transfer-Encoding";
  return {};
}

}  // namespace veld_report::server
