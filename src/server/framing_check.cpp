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

// Both ends of a line are replaced by zero bytes, so after each text of the head come two of them: a third
// one was sent. The library reads a text up to its first zero byte and would overlook what follows. Other
// versions of the library lay the head out differently, and refuse zero bytes themselves.
constexpr std::size_t lineEndBytes = 2;
const bool knowsLayout = std::string_view(MHD_get_version()).starts_with("0.9.75");

constexpr char unclearHead[] =
    "the head of the request has a zero byte, a folded line, or a line that doesn't end with CR and LF";

struct Headers {
  std::vector<std::string_view> hosts, lengths, codings;
  const char* next = nullptr;  // where the next header must begin
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
  const bool isNext = key.data() == headers->next;
  headers->next = text.data() + text.size() + lineEndBytes;
  if (key.empty() || !std::all_of(key.begin(), key.end(), IsNameByte))
    headers->problem = "the request has a header of the name " + host::Printable(key);
  else if (!std::all_of(text.begin(), text.end(), IsValueByte))
    headers->problem = "the header " + std::string(key) + " has a control character";
  else if (!isNext && knowsLayout)
    headers->problem = unclearHead;
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

std::string TargetProblem(std::string_view target) {
  for (std::size_t i = 0; i < target.size(); ++i) {
    char byte = target[i];
    unsigned escaped = 0;
    if (byte == '%' && target.size() - i > 2 &&
        std::from_chars(&target[i + 1], &target[i + 1] + 2, escaped, 16).ptr == &target[i + 1] + 2)
      byte = static_cast<char>(escaped);
    if (!IsValueByte(byte) || byte == '\t' || target[i] == ' ')
      return "the path of the request has a control character or a blank: " + host::Printable(target);
  }
  return {};
}

std::string FramingProblem(MHD_Connection* connection, const RequestLine& line) {
  const std::string_view version = line.version;
  Headers headers;
  headers.next = version.data() + version.size() + lineEndBytes;
  MHD_get_connection_values_n(connection, MHD_HEADER_KIND, &Collect, &headers);
  if (!headers.problem.empty()) return headers.problem;
  if (knowsLayout) {
    const auto* const size = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    const char* const end = line.method.data() + (size ? size->header_size : 0);
    const bool isWhole =
        line.target.data() == nullptr || (line.method.data() + line.method.size() + 1 == line.target.data() &&
                                          line.target.data() + line.target.size() + 1 == version.data());
    if (!isWhole || headers.next + lineEndBytes != end) return unclearHead;
  }
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
