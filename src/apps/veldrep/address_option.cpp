#include "apps/veldrep/address_option.h"

#include <charconv>

#include "apps/veldrep/command.h"

namespace veld_report::app {

AddressOption ParseAddress(const std::string& option, const std::string& text,
                           const std::string& defaultAddress) {
  AddressOption parsed;
  const std::size_t colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
  std::string address = text.substr(0, colon == std::string::npos ? 0 : colon);
  if (address.empty()) address = defaultAddress;
  const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
  if (bracketed) address = address.substr(1, address.size() - 2);
  const auto [end, code] = std::from_chars(port.data(), port.data() + port.size(), parsed.port);
  const bool portOk = !port.empty() && code == std::errc() && end == port.data() + port.size();
  // Without brackets the last group of an IPv6 address would be taken for the port.
  if (address.empty() || !portOk || (!bracketed && address.find(':') != std::string::npos)) {
    throw WrongCommandLine(option + " " + text + ": expected ADDRESS:PORT" +
                           (defaultAddress.empty() ? "" : " or a port") +
                           ", as in 127.0.0.1:0 or [::1]:8080");
  }
  parsed.address = address;
  return parsed;
}

}  // namespace veld_report::app
