// The server's decoding of a compressed body. The first byte of an input chooses the coding, the limit, and
// what the rest is: a body, or a text to be compressed into one, since few mutations survive a checksum.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "server/body_decoder.h"
#include "tests/server/compress.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using veld_report::fuzz::Require;
  using namespace veld_report::server;
  if (size < 2) return 0;
  const bool isGzip = (data[0] & 1) != 0;
  const bool isText = (data[0] & 2) != 0;
  const std::size_t limit = data[0] < 128 ? 1000 : 200'000;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto encode = isGzip ? veld_report::server_test::Gzip : veld_report::server_test::Zstd;
  const std::string body = isText ? encode(rest) : std::string(rest);
  std::size_t held = 0;
  const auto hold = [&](std::size_t bytes) {
    held = bytes;
    return true;
  };
  const DecodedBody decoded = DecodeBody(isGzip ? BodyCoding::gzip : BodyCoding::zstd, body, limit, hold);
  Require(held <= limit + 1, "more memory is asked for than the limit allows");
  Require(decoded.text.size() <= limit, "a text over the limit passes");
  Require((decoded.end == DecodedBody::damaged) == !decoded.problem.empty(), "the sentence doesn't fit");
  if (!isText) return 0;
  Require(decoded.end == (rest.size() > limit ? DecodedBody::tooLarge : DecodedBody::whole),
          "a good body ends otherwise");
  Require(decoded.end != DecodedBody::whole || decoded.text == rest, "the text is another");
  return 0;
}
