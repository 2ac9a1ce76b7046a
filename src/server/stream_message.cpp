#include "server/stream_message.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <simdjson.h>

#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <new>
#include <optional>
#include <stdexcept>

#include "server/json_reader.h"

namespace veld_report::server {
namespace {

constexpr const char* formatName = "1";

std::string Hex(const unsigned char* bytes, std::size_t size) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
  return text;
}

// 16 random bytes of this process and a number.
std::string UniqueText() {
  static const std::string process = [] {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
      throw std::runtime_error("no random numbers");
    return Hex(bytes.data(), bytes.size());
  }();
  static std::atomic<std::uint64_t> number{0};  // each once, whatever the order
  return process + std::to_string(++number);
}

std::string Escape(std::string_view text) {
  std::string escaped;
  for (const char each : text) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte > 0x20 && byte < 0x7f && byte != '%') {
      escaped += each;
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02X", unsigned{byte});
      escaped += code;
    }
  }
  return escaped;
}

// Leaves what isn't an escape as it is.
std::string Unescape(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const char* const digits = text.data() + i + 1;
    if (text[i] == '%' && text.size() - i > 2 &&
        std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2) {
      plain += static_cast<char>(value);
      i += 2;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// None unless it is the text of a time, to the letter, in a year that a WallTimePoint holds.
std::optional<host::Clock::WallTimePoint> ReadTime(std::string_view text) {
  namespace chrono = std::chrono;
  const auto number = [&](std::size_t begin, std::size_t digits) {
    int value = 0;
    if (begin + digits <= text.size())
      std::from_chars(text.data() + begin, text.data() + begin + digits, value);
    return value;
  };
  const chrono::year_month_day date(chrono::year(number(0, 4)),
                                    chrono::month(static_cast<unsigned>(number(5, 2))),
                                    chrono::day(static_cast<unsigned>(number(8, 2))));
  if (!date.ok() || date.year() < chrono::year(1970) || date.year() > chrono::year(2261)) return std::nullopt;
  const host::Clock::WallTimePoint time = chrono::sys_days(date) + chrono::hours(number(11, 2)) +
                                          chrono::minutes(number(14, 2)) + chrono::seconds(number(17, 2)) +
                                          chrono::milliseconds(number(20, 3));
  // An hour 25, a sign or another separator doesn't come back the same.
  if (TextOfTime(time) != text) return std::nullopt;
  return time;
}

// Empty, or what is wrong with the lines.
std::string LinesProblem(std::string_view lines) {
  if (lines.empty() || lines.back() != '\n') return "its body doesn't end with a line end";
  for (std::size_t number = 1; !lines.empty(); ++number) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    lines.remove_prefix(line.size() + 1);
    try {
      std::size_t values = 0;
      ReadJsonArray("[" + std::string(line) + "]", [&](std::string_view) { ++values; });
      if (values != 1) return "line " + std::to_string(number) + " of its body isn't one JSON text";
    } catch (const JsonError& error) {
      return "line " + std::to_string(number) + " of its body " + error.what();
    }
  }
  return {};
}

}  // namespace

std::string PacketId(const SinkPacket& packet, std::size_t* count) {
  bool allHaveIds = true;
  *count = 0;
  ReadRecords(packet.lines, [&](const SinkRecord& record) {
    allHaveIds = allHaveIds && !record.id.empty();
    ++*count;
  });
  std::string head = std::string(packet.url) + '\n' + std::string(packet.keyName) + '\n';
  if (!allHaveIds) head += UniqueText();
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  std::array<unsigned char, 32> bytes{};
  if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(digest.get(), head.data(), head.size()) != 1 ||
      EVP_DigestUpdate(digest.get(), packet.lines.data(), packet.lines.size()) != 1 ||
      EVP_DigestFinal_ex(digest.get(), bytes.data(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  return Hex(bytes.data(), bytes.size());
}

NatsMessage MakeMessage(const std::string& subject, const std::string& id, const SinkPacket& packet) {
  natsMsg* raw = nullptr;
  natsStatus status = natsMsg_Create(&raw, subject.c_str(), nullptr, packet.lines.data(),
                                     static_cast<int>(packet.lines.size()));
  NatsMessage message(raw);
  const auto set = [&](const char* name, const std::string& value) {
    // The library can't read headers of which one is empty.
    if (status == NATS_OK && !value.empty()) status = natsMsgHeader_Set(raw, name, value.c_str());
  };
  set("Nats-Msg-Id", id);
  set("Report-Format", formatName);
  set("Report-Url", std::string(packet.url));
  set("Report-Path", std::string(packet.urlPath));
  set("Report-Key", Escape(packet.keyName));
  set("Report-Time", TextOfTime(packet.received));
  if (status != NATS_OK) throw std::bad_alloc();
  return message;
}

void ReadMessage(natsMsg* message, ReceivedPacket* received) {
  const auto header = [&](const char* name) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK && value ? value : "";
  };
  if (std::string_view(header("Report-Format")) != formatName) {
    received->problem = "it has no header Report-Format: 1";
    return;
  }
  const auto time = ReadTime(header("Report-Time"));
  if (!time) {
    received->problem = "its Report-Time isn't a time like 2026-03-31T09:41:07.123Z";
    return;
  }
  const std::string_view lines(natsMsg_GetData(message),
                               static_cast<std::size_t>(natsMsg_GetDataLength(message)));
  received->problem = LinesProblem(lines);
  if (!received->problem.empty()) return;
  received->keyName = Unescape(header("Report-Key"));
  const char* const url = header("Report-Url");
  const char* const path = header("Report-Path");
  // A database refuses anything else, again and again.
  for (const std::string_view text :
       {std::string_view(received->keyName), std::string_view(url), std::string_view(path)}) {
    if (text.find('\0') == std::string_view::npos && simdjson::validate_utf8(text.data(), text.size()))
      continue;
    received->problem = "its url, path or key isn't text";
    return;
  }
  received->packet = {url, path, received->keyName, *time, lines};
}

}  // namespace veld_report::server
