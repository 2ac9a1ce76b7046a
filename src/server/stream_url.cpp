#include "server/stream_url.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <stdexcept>

#include "host/base/printable.h"

namespace veld_report::server {
namespace {

constexpr std::string_view scheme = "nats://";

[[noreturn]] void Refuse(const std::string& what) { throw std::invalid_argument(what); }

// What lies before `separator`, which is removed with it. All, if there is none.
std::string_view Cut(std::string_view* text, std::string_view separator) {
  const std::size_t at = text->find(separator);
  const std::string_view before = text->substr(0, at);
  text->remove_prefix(at == std::string_view::npos ? text->size() : at + separator.size());
  return before;
}

bool ReadNumber(std::string_view text, std::uint64_t minimum, std::uint64_t maximum, std::uint64_t* number) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return !text.empty() && code == std::errc() && end == text.data() + text.size() && *number >= minimum &&
         *number <= maximum;
}

// "a%40b" -> "a@b".
std::string Unescape(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    plain += Cut(&text, "%");
    if (text.empty()) break;
    unsigned value = 0;
    const auto [end, code] =
        std::from_chars(text.data(), text.data() + std::min<std::size_t>(2, text.size()), value, 16);
    if (code != std::errc() || end != text.data() + 2 || value == 0)
      Refuse("a % in user, password or a file's name isn't followed by two hexadecimal digits");
    plain += static_cast<char>(value);
    text.remove_prefix(2);
  }
  return plain;
}

void ReadBroker(std::string_view text, StreamUrl* url) {
  const std::size_t colon = text.rfind(':');
  std::uint64_t port = 0;
  const std::string_view host = text.substr(0, colon);
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (colon == std::string_view::npos || host.empty() ||
      (!bracketed && host.find(':') != std::string_view::npos) ||
      !ReadNumber(text.substr(colon + 1), 1, 65'535, &port)) {
    Refuse("expected HOST:PORT in place of " + host::Printable(text));
  }
  url->brokers.emplace_back(text);
}

void ReadOption(std::string_view text, StreamUrl* url) {
  const std::string_view name = Cut(&text, "=");
  const auto number = [&](std::uint64_t maximum) {
    std::uint64_t value = 0;
    if (!ReadNumber(text, 1, maximum, &value))
      Refuse("expected a number from 1 to " + std::to_string(maximum) + " for " + std::string(name) +
             " in place of " + host::Printable(text));
    return static_cast<unsigned>(value);
  };
  if (name == "replicas") {
    url->replicas = number(5);
  } else if (name == "duplicates") {
    url->duplicates = std::chrono::seconds(number(86'400));
  } else if (name == "partitions") {
    url->partitions = number(256);
  } else if (name == "tls") {
    url->authorities = Unescape(text);
    if (url->authorities.empty()) Refuse("expected system or a PEM file with authorities for tls");
  } else {
    Refuse("there is no option " + host::Printable(name) +
           "; expected replicas, duplicates, partitions or tls");
  }
}

}  // namespace

std::vector<std::string> StreamUrl::Streams() const {
  if (partitions == 1) return {stream};
  std::vector<std::string> names;
  for (unsigned i = 1; i <= partitions; ++i) names.push_back(stream + "-" + std::to_string(i));
  return names;
}

std::string StreamUrl::Name() const {
  std::string name(scheme);
  for (const std::string& broker : brokers) name += broker + ",";
  name.back() = '/';
  return name + stream;
}

StreamUrl ReadStreamUrl(std::string_view text) {
  StreamUrl url;
  if (!text.starts_with(scheme)) Refuse("expected nats://HOST:PORT/STREAM");
  text.remove_prefix(scheme.size());
  // A password that contains one of "/?@" must be escaped.
  std::string_view address = Cut(&text, "/");
  const bool isEscaped = text.find('@') == std::string_view::npos;
  if (!isEscaped || address.find('@') != std::string_view::npos) {
    std::string_view user = Cut(&address, "@");
    url.user = Unescape(Cut(&user, ":"));
    url.password = Unescape(user);
    if (!isEscaped || address.find('@') != std::string_view::npos)
      Refuse("user and password stand once, before the first HOST, with each / and @ in them as %2F and %40");
    if (url.user.empty()) Refuse("the user before the @ is empty");
  }
  do {
    ReadBroker(Cut(&address, ","), &url);
  } while (!address.empty());

  url.stream = Cut(&text, "?");
  const auto isNameCharacter = [](char each) {
    return (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') || (each >= '0' && each <= '9') ||
           each == '_' || each == '-';
  };
  if (url.stream.empty() || url.stream.size() > 64 ||
      !std::all_of(url.stream.begin(), url.stream.end(), isNameCharacter))
    Refuse("expected the name of a stream after the last /: up to 64 letters, digits, _ and -");
  while (!text.empty()) ReadOption(Cut(&text, "&"), &url);
  return url;
}

}  // namespace veld_report::server
