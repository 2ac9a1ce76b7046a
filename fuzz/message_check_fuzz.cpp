// The server's check of a message. The first byte of an input chooses what the rest is: a whole body, or a
// payload text to be wrapped into one, since no mutation finds its way through base64 by itself.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "server/message_check.h"
#include "tests/server/message_builder.h"

namespace {

using veld_report::fuzz::Require;
using veld_report::server::CheckMessage;
using veld_report::server::MessageContent;
using veld_report::server_test::Body;

// What was accepted is stored one item per line, so it must come out the same when sent again.
void RequireStorable(const MessageContent& content) {
  Require(content.payloadDecoded && content.signatureDecoded, "a body passed that wasn't read to its end");
  const auto lines = std::count(content.itemLines.begin(), content.itemLines.end(), '\n');
  Require(static_cast<std::size_t>(lines) == content.itemCount, "the lines aren't as many as the items");

  std::string payload = R"({"array":[)" + content.itemLines;
  if (!content.itemLines.empty()) payload.pop_back();
  std::replace(payload.begin(), payload.end(), '\n', ',');
  payload += "]}";
  const MessageContent again = CheckMessage(Body(payload, content.signatureBlock), {});
  Require(again.problem.empty(), "what was accepted is refused when it is sent again");
  Require(again.itemLines == content.itemLines, "the lines of the second sending differ");
  Require(again.signatureBlock == content.signatureBlock,
          "the signature block of the second sending differs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const bool wrapped = (data[0] & 1) != 0;
  const std::string body = wrapped ? Body(rest) : std::string(rest);
  const MessageContent content = CheckMessage(body, {});
  Require(!wrapped || (content.payloadDecoded && content.payloadText == rest), "the payload is another");
  if (content.problem.empty()) RequireStorable(content);
  // With a verifier that accepts nothing, nothing may pass.
  const MessageContent signedOnly =
      CheckMessage(body, [](auto, auto) { return std::string("it isn't right"); });
  Require(!signedOnly.problem.empty() && !signedOnly.signatureChecked, "an unsigned message passed");
  return 0;
}
