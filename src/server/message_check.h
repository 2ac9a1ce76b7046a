// Checks the body of a report request layer by layer and extracts its items (docs/wire-format.md).
//
// The layers: content type, the JSON of the message, the base64 of "payload" and "protected", the JSON of the
// payload, and the signature if there is a key. The check is strict where the format fixes the bytes: exactly
// the members of the format, exactly one signature, canonical base64. What the format leaves open
// (whitespace, the order of members, an escaped "\/") passes.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace veld_report::server {

// Checks a signature block over a payload. Returns an empty text if it is valid, otherwise a phrase that says
// what is wrong ("the message isn't signed"). Must be callable from any thread.
using SignatureVerifier = std::function<std::string(std::string_view payload, std::string_view block)>;

// The content of a body. One that doesn't pass is read up to its first fault, for a person to look at.
struct MessageContent {
  std::string problem;  // empty: the body passed. Otherwise one sentence that says what is wrong and where

  bool payloadDecoded = false;
  std::string payloadText;

  bool signatureDecoded = false;
  std::string signatureBlock;     // all of "protected", decoded
  std::string signatureHeader;    // the part of the block before its first zero byte
  std::string signature;          // the part after it
  bool signatureChecked = false;  // a verifier was given and accepted it
  bool signatureRefused = false;  // a verifier was given and didn't; `problem` says why

  // One line for each item, line end included, with the item's text as it was sent. Only an item that
  // contains line ends is rewritten, without whitespace between its tokens.
  std::string itemLines;
  std::size_t itemCount = 0;
};

// `verifier` may be empty: then any signature block passes. Throws std::bad_alloc only. Threads: any.
MessageContent CheckMessage(std::string_view body, const SignatureVerifier& verifier);

// Empty for "application/json", with or without parameters; otherwise the sentence that says what is wrong.
std::string ContentTypeProblem(std::string_view contentType);

}  // namespace veld_report::server
