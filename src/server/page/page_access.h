// PageAccess: whether a request may see the page.
//
// A browser sends requests for any website that it shows. So what names another Host (a foreign name that was
// pointed at this machine) or comes from another Origin is refused, and beyond loopback a token is needed: in
// the header "Authorization: Bearer TOKEN", or once in the page's form, which sets a cookie. A request with
// the token in its header comes from no website and may have any Host; that is for tools and proxies.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace veld_report::server {

// The headers that matter here; empty: none.
struct PageRequest {
  std::string_view host, origin, fetchSite, authorization, cookie;
  bool isNavigation = false;  // a person follows a link or types the address
};

// Threads: any.
class PageAccess {
 public:
  enum class Verdict { granted, otherHost, otherOrigin, needsToken };

  // `names`: by which the page may be called, in brackets if they are IPv6 addresses. `anyAddress`: any
  // numeric address will do. `token`: empty: none is needed. `isTls`: the page is at https://.
  PageAccess(std::vector<std::string> names, bool anyAddress, std::uint16_t port, std::string token,
             bool isTls);

  Verdict Check(const PageRequest& request) const;
  bool IsToken(std::string_view text) const;
  // The value of a Set-Cookie header for who has shown the token; valid until the server ends.
  std::string Cookie() const;

 private:
  bool IsOwnHost(std::string_view host) const;

  const std::vector<std::string> names_;
  const bool anyAddress_;
  const std::string port_;
  const std::string token_;
  const bool isTls_;
  const std::string session_;  // a random name for this server's run
};

}  // namespace veld_report::server
