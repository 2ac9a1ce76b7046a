// Strict base64 decoding: the padded standard alphabet (RFC 4648 section 4) and nothing else.
//
// A library decoder that skips whitespace or accepts the URL-safe alphabet would pass messages that another
// server rejects. This one accepts exactly one text for each sequence of bytes.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::server {

// Puts the bytes into `bytes` and returns an empty text. On an error it empties `bytes` and returns what is
// wrong and where, as the end of a sentence that names the text ("has ... at character 7", counted from 1).
// Throws std::bad_alloc. Threads: any.
std::string DecodeBase64(std::string_view text, std::string* bytes);

}  // namespace veld_report::server
