#include "server/page/page_access.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "host/platform/random.h"

namespace veld_report::server {
namespace {

constexpr std::string_view cookieName = "veldrep_page=";

std::string RandomName() {
  std::array<std::byte, 16> bytes{};
  host::FillWithRandom(bytes);
  constexpr char digits[] = "0123456789abcdef";
  std::string name;
  for (const std::byte each : bytes) {
    const auto value = std::to_integer<unsigned>(each);
    name += {digits[value >> 4], digits[value & 15]};
  }
  return name;
}

// Takes the same time wherever they differ.
bool IsSame(std::string_view one, std::string_view other) {
  if (one.size() != other.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < one.size(); ++i) difference |= static_cast<unsigned char>(one[i] ^ other[i]);
  return difference == 0;
}

bool EqualNames(std::string_view one, std::string_view other) {
  return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

// "192.0.2.1" or "[2001:db8::1]".
bool IsNumericAddress(std::string_view text) {
  in6_addr place{};
  if (text.size() > 2 && text.front() == '[' && text.back() == ']')
    return inet_pton(AF_INET6, std::string(text.substr(1, text.size() - 2)).c_str(), &place) == 1;
  return inet_pton(AF_INET, std::string(text).c_str(), &place) == 1;
}

}  // namespace

PageAccess::PageAccess(std::vector<std::string> names, bool anyAddress, std::uint16_t port, std::string token,
                       bool isTls)
    : names_(std::move(names)),
      anyAddress_(anyAddress),
      port_(std::to_string(port)),
      token_(std::move(token)),
      isTls_(isTls),
      session_(RandomName()) {}

bool PageAccess::IsToken(std::string_view text) const { return !token_.empty() && IsSame(text, token_); }

std::string PageAccess::Cookie() const {
  return std::string(cookieName) + session_ + "; HttpOnly; SameSite=Strict; Path=/" +
         (isTls_ ? "; Secure" : "");
}

bool PageAccess::IsOwnHost(std::string_view host) const {
  const std::size_t colon = host.rfind(':');
  const bool hasPort = colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos;
  // Browsers leave out the default port.
  if (hasPort ? host.substr(colon + 1) != port_ : port_ != (isTls_ ? "443" : "80")) return false;
  const std::string_view name = hasPort ? host.substr(0, colon) : host;
  return (anyAddress_ && IsNumericAddress(name)) ||
         std::any_of(names_.begin(), names_.end(),
                     [&](const std::string& each) { return EqualNames(each, name); });
}

PageAccess::Verdict PageAccess::Check(const PageRequest& request) const {
  constexpr std::string_view bearer = "Bearer ";
  const std::string scheme = isTls_ ? "https://" : "http://";
  if (request.authorization.starts_with(bearer) && IsToken(request.authorization.substr(bearer.size())))
    return Verdict::granted;
  if (!IsOwnHost(request.host)) return Verdict::otherHost;
  // A link on another site may lead here; no site may fetch anything from here.
  if (!request.origin.empty() && request.origin != scheme + std::string(request.host))
    return Verdict::otherOrigin;
  if ((request.fetchSite == "cross-site" || request.fetchSite == "same-site") && !request.isNavigation)
    return Verdict::otherOrigin;
  if (token_.empty()) return Verdict::granted;
  for (std::string_view cookies = request.cookie; !cookies.empty();) {
    std::string_view each = cookies.substr(0, cookies.find(';'));
    cookies.remove_prefix(std::min(each.size() + 1, cookies.size()));
    while (each.starts_with(' ')) each.remove_prefix(1);
    if (each.starts_with(cookieName) && IsSame(each.substr(cookieName.size()), session_))
      return Verdict::granted;
  }
  return Verdict::needsToken;
}

}  // namespace veld_report::server
