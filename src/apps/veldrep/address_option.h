// Options that take an address and a port.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::app {

struct AddressOption {
  std::string address;  // without brackets
  std::uint16_t port = 0;
};

// "127.0.0.1:0", "[::1]:8080", "localhost:80". With a default address also "8080" and ":8080". Throws
// WrongCommandLine; `option` is its name for the sentence.
AddressOption ParseAddress(const std::string& option, const std::string& text,
                           const std::string& defaultAddress = {});

}  // namespace veld_report::app
