// Messages as a sender makes them, for the tests of what receives them.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::server_test {

std::string EncodeBase64(std::string_view bytes);

// The worked example: two items and the unsigned block.
inline constexpr std::string_view exampleBody =
    R"({"payload":"eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19","signatures":[{"protected":"eyJhbGciOiJub25lIn0A"}]})";

// A body around a payload text, with any signature block; by default the unsigned one.
std::string Body(std::string_view payloadText, std::string_view block = {"{\"alg\":\"none\"}\0", 15});

}  // namespace veld_report::server_test
