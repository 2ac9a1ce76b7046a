// Checks the body of one report request in every layer and takes its items out (docs/wire-format.md).
//
// The layers: content type, the JSON of the message, the base-64 of "payload" and "protected", the payload's
// own JSON, and with a key the signature. The check is strict where the format fixes bytes: exactly the
// members that the format has, exactly one signature, no second spelling of base-64. What is merely left open
// by the format (white space, the order of members, an escaped "/") passes.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace veld_report::server {

// Checks a signature block over a payload: an empty text if all is well, otherwise a phrase that says what is
// wrong ("the message isn't signed"). Must be callable from any thread.
using SignatureVerifier = std::function<std::string(std::string_view payload, std::string_view block)>;

// What a body holds. A body that doesn't pass is read as far as its first fault, for a person to look at.
struct MessageContent {
  std::string problem;  // empty: the body passed. Else one sentence of what is wrong and where

  bool payloadDecoded = false;
  std::string payloadText;

  bool signatureDecoded = false;
  std::string signatureBlock;     // everything that stood in "protected"
  std::string signatureHeader;    // what stands in front of the block's first zero byte
  std::string signature;          // what stands behind it
  bool signatureChecked = false;  // a verifier was given and has said yes

  // Each item as one line with a line end, its text as it was sent. Only an item that has line ends of its
  // own is rewritten without blanks between its tokens.
  std::string itemLines;
  std::size_t itemCount = 0;
};

// `verifier` may be empty: then any signature block passes. Throws std::bad_alloc only. Threads: any.
MessageContent CheckMessage(std::string_view body, const SignatureVerifier& verifier);

// Empty for "application/json", with or without parameters; else the sentence of what is wrong.
std::string ContentTypeProblem(std::string_view contentType);

}  // namespace veld_report::server
