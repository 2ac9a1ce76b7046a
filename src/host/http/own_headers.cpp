#include "host/http/own_headers.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace veld_report::host {
namespace {

constexpr std::array<const char*, 7> reservedNames{"connection",       "content-encoding", "content-length",
                                                   "content-type",     "expect",           "host",
                                                   "transfer-encoding"};

// A name as RFC 9110 defines it (5.6.2).
bool IsName(std::string_view name) {
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::ranges::all_of(name, [&](char each) {
    return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') ||
           marks.find(each) != marks.npos;
  });
}

}  // namespace

bool IsHeaderLine(std::string_view line) {
  return !line.empty() && line.front() != ':' &&
         line.find_first_of(std::string_view("\r\n\0", 3)) == line.npos;
}

void CheckOwnHeaders(const HttpClientOptions& options) {
  for (std::size_t i = 0; i < options.headers.size(); ++i) {
    const std::string& line = options.headers[i];
    const std::string number = std::to_string(i + 1);
    const std::size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    // The value may be a secret, so the sentence doesn't repeat it.
    if (colon == line.npos || !IsName(name) || !IsHeaderLine(line) ||
        line.find_first_not_of(" \t", colon + 1) == line.npos) {
      throw std::invalid_argument("header " + number + " isn't a line of the form \"Name: value\"");
    }
    if (std::ranges::any_of(reservedNames,
                            [&](const char* each) { return strcasecmp(each, name.c_str()) == 0; })) {
      throw std::invalid_argument(std::string("header ").append(number).append(": ").append(name).append(
          " is set by the client; leave it out"));
    }
  }
  if (!options.userAgent.empty() && !IsHeaderLine(options.userAgent)) {
    throw std::invalid_argument("the user agent contains a line break; leave it out");
  }
}

}  // namespace veld_report::host
