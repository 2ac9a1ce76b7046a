#include "server/message_check.h"

#include <simdjson.h>
#include <strings.h>

#include <stdexcept>
#include <vector>

#include "host/base/printable.h"
#include "server/base64.h"
#include "server/json_reader.h"

namespace veld_report::server {
namespace {

// Ends the check. what() is the whole sentence.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs a step of json_reader.h and completes the sentence of its error.
template <class Step>
auto Reading(const std::string& name, Step&& step) {
  try {
    return step();
  } catch (const JsonError& error) {
    throw Refusal(name + " " + error.what());
  }
}

// The value of the member `key`, which must be there exactly once.
std::string_view TakeMember(const std::vector<JsonMember>& members, std::string_view key,
                            const std::string& owner) {
  const JsonMember* found = nullptr;
  for (const JsonMember& member : members) {
    if (member.key != key) continue;
    if (found) throw Refusal(owner + " has the member " + host::Printable(key) + " twice");
    found = &member;
  }
  if (!found) throw Refusal(owner + " has no member " + host::Printable(key));
  return found->value;
}

void RefuseOthers(const std::vector<JsonMember>& members, std::string_view first, std::string_view second,
                  const std::string& owner) {
  for (const JsonMember& member : members) {
    if (member.key == first || member.key == second) continue;
    throw Refusal(owner + " has an unknown member: " + host::Printable(member.key));
  }
}

// `value`: of a member that was read, so it is valid JSON.
std::string DecodeMember(std::string_view value, const std::string& name) {
  std::string unescaped;
  std::string_view text = value.substr(1, value.size() - 2);
  if (!value.starts_with('"') || value.find('\\') != std::string_view::npos)
    text = unescaped = Reading(name, [&] { return ReadJsonString(value); });
  std::string bytes;
  const std::string problem = DecodeBase64(text, &bytes);
  if (!problem.empty()) throw Refusal(name + " isn't valid base-64: it " + problem);
  return bytes;
}

void ReadSignatures(std::string_view value, MessageContent* content) {
  std::size_t count = 0;
  std::string_view only;
  Reading("\"signatures\"", [&] {
    ReadJsonArray(value, [&](std::string_view element) {
      ++count;
      only = element;
    });
  });
  if (count != 1) {
    throw Refusal("\"signatures\" has " + std::to_string(count) + " elements instead of exactly one");
  }
  const std::string owner = "the element of \"signatures\"";
  const auto members = Reading(owner, [&] { return ReadJsonObject(only); });
  const std::string_view block = TakeMember(members, "protected", owner);
  RefuseOthers(members, "protected", "protected", owner);
  content->signatureBlock = DecodeMember(block, "\"protected\"");
  content->signatureDecoded = true;
  const std::size_t zero = content->signatureBlock.find('\0');
  content->signatureHeader = content->signatureBlock.substr(0, zero);
  if (zero != std::string::npos) content->signature = content->signatureBlock.substr(zero + 1);
}

void AppendLine(std::string_view item, std::string* lines) {
  if (item.find('\n') == std::string_view::npos && item.find('\r') == std::string_view::npos) {
    lines->append(item);
  } else {
    std::string minified(item.size(), '\0');
    std::size_t length = 0;
    // Can't fail: a text that passed the grammar has no unclosed string.
    if (simdjson::minify(item.data(), item.size(), minified.data(), length)) {
      throw Refusal("an item can't be put on one line");
    }
    lines->append(minified, 0, length);
  }
  lines->push_back('\n');
}

void ReadItems(MessageContent* content) {
  std::string lines, problem;
  std::size_t count = 0;
  lines.reserve(content->payloadText.size());  // line ends take the place of commas and brackets
  const auto onItem = [&](std::string_view item) {
    ++count;
    if (!problem.empty()) return;
    if (item.starts_with('{'))
      AppendLine(item, &lines);
    else
      problem = "item " + std::to_string(count) + " isn't a JSON object: " + host::Printable(item);
  };
  const auto members =
      Reading("the payload", [&] { return ReadJsonObject(content->payloadText, "array", onItem); });
  const std::string_view array = TakeMember(members, "array", "the payload");
  RefuseOthers(members, "array", "array", "the payload");
  // If it is none, this says what it is.
  if (!array.starts_with('[')) Reading("\"array\" of the payload", [&] { ReadJsonArray(array, onItem); });
  if (!problem.empty()) throw Refusal(problem);
  content->itemLines = std::move(lines);
  content->itemCount = count;
}

void Check(std::string_view body, const SignatureVerifier& verifier, MessageContent* content) {
  const auto members = Reading("the body", [&] { return ReadJsonObject(body); });
  const std::string_view payload = TakeMember(members, "payload", "the body");
  const std::string_view signatures = TakeMember(members, "signatures", "the body");
  RefuseOthers(members, "payload", "signatures", "the body");
  content->payloadText = DecodeMember(payload, "\"payload\"");
  content->payloadDecoded = true;
  ReadSignatures(signatures, content);
  ReadItems(content);
  if (!verifier) return;
  const std::string problem = verifier(content->payloadText, content->signatureBlock);
  content->signatureRefused = !problem.empty();
  if (content->signatureRefused) throw Refusal("the signature isn't accepted: " + problem);
  content->signatureChecked = true;
}

}  // namespace

MessageContent CheckMessage(std::string_view body, const SignatureVerifier& verifier) {
  MessageContent content;
  try {
    Check(body, verifier, &content);
  } catch (const Refusal& refusal) {
    content.problem = refusal.what();
  }
  return content;
}

std::string ContentTypeProblem(std::string_view contentType) {
  constexpr std::string_view wanted = "application/json";
  if (contentType.empty()) return "the request has no Content-Type; application/json is expected";
  std::string_view type = contentType.substr(0, contentType.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t')) type.remove_suffix(1);
  if (type.size() == wanted.size() && strncasecmp(type.data(), wanted.data(), wanted.size()) == 0) return {};
  return "the Content-Type is " + host::Printable(contentType) + " instead of application/json";
}

}  // namespace veld_report::server
