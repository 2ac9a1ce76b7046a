// Undoes the compression of a body (Content-Encoding, RFC 9110, 8.4): gzip and zstd.
//
// It takes the whole compressed body rather than pieces as they arrive. So a slow client occupies no decoder,
// and there are never more of them than the server has threads.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace veld_report::server {

enum class BodyCoding { identity, gzip, zstd };

// The value of the header Accept-Encoding.
inline constexpr char acceptedCodings[] = "gzip, zstd";

// Of the value of a header Content-Encoding, which is empty if there is none. Nothing for a coding that isn't
// known, and for several in a row.
std::optional<BodyCoding> ReadBodyCoding(std::string_view contentEncoding);

struct DecodedBody {
  // What became of it. Only `whole` has the text.
  enum { whole, damaged, tooLarge, noRoom } end = whole;
  std::string text{};
  std::string problem{};  // damaged: one sentence that says what is wrong and where
};

// `limitBytes`: of the decoded text; decoding stops there. `hold` is asked before the text takes up more
// memory, with the bytes that it will have in total; false ends it with `noRoom`. The decoder itself takes up
// to 9 MiB. Several gzip members or zstd frames in a row are one text. Throws std::bad_alloc. Threads: any.
DecodedBody DecodeBody(BodyCoding coding, std::string_view body, std::size_t limitBytes,
                       const std::function<bool(std::size_t)>& hold);

}  // namespace veld_report::server
