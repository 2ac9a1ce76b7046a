// Checks what RFC 9112 says about the frame of a request, where the HTTP library is lenient.
//
// A proxy in front may read a lenient frame otherwise than this server, and then one client's bytes become
// another one's request. So what can be read in two ways is refused, and the connection with it.
#pragma once

#include <string>
#include <string_view>

struct MHD_Connection;

namespace veld_report::server {

// The parts of a request's first line, as they lie in the library's memory.
struct RequestLine {
  std::string_view method;
  std::string_view
      target;  // as it was sent; the library has changed its bytes since. Null: not to be looked at
  std::string_view version;
};

// What is wrong with a target (a path with its query); empty: nothing. Threads: any.
std::string TargetProblem(std::string_view target);

// Empty if the frame is right, otherwise the sentence that says what is wrong. Only while the library hands
// the request out. Threads: any.
std::string FramingProblem(MHD_Connection* connection, const RequestLine& line);

}  // namespace veld_report::server
