// Checks the urls of settings before anything is sent to them.
#pragma once

#include <string>

namespace veld_report::host {

struct UrlCheck {
  std::string wrong{};  // what is wrong with the url, a phrase; empty: it is valid, and the rest holds
  bool isTls = false;
  bool isLoopback = false;  // localhost, 127.0.0.0/8 or ::1
};

// Parses as the client does. Throws std::bad_alloc.
UrlCheck CheckUrl(const std::string& url);

}  // namespace veld_report::host
