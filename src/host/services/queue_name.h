// The name of a url's queue, for tools that inspect a store.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::host {

// The 32 lower-case hexadecimal characters that the module computes: MD5 over the UTF-16 units of the url in
// memory order (little endian), without terminator. Two spellings of one address give two names. Throws
// std::invalid_argument for text that isn't UTF-8, std::runtime_error if OpenSSL has no MD5.
std::string QueueNameOfUrl(std::string_view utf8Url);

}  // namespace veld_report::host
