// Checks what RFC 9112 says about the frame of a request, where the HTTP library is lenient.
//
// A proxy in front may read a lenient frame otherwise than this server, and then one client's bytes become
// another one's request. So what can be read in two ways is refused, and the connection with it.
#pragma once

#include <string>
#include <string_view>

struct MHD_Connection;

namespace veld_report::server {

// Empty if the frame is right, otherwise the sentence that says what is wrong. Only while the library hands
// the request out. Threads: any.
std::string FramingProblem(MHD_Connection* connection, std::string_view version);

}  // namespace veld_report::server
