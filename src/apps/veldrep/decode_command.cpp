// veldrep decode: a captured body, layer by layer, by the same check that the report server uses.
#include <cstdio>
#include <memory>

#include "apps/veldrep/command.h"
#include "apps/veldrep/key_option.h"
#include "host/base/printable.h"

namespace veld_report::app {
namespace {

// Four times what serve takes by default.
constexpr std::size_t bodyLimitBytes = std::size_t{64} << 20;

struct DecodeOptions {
  std::vector<std::string> keys;
  std::string file = "-";
};

void Print(const std::string& line) { std::printf("%s\n", line.c_str()); }

std::string Hexadecimal(std::string_view bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string result;
  for (const char each : bytes) {
    const auto byte = static_cast<unsigned char>(each);
    result += {digits[byte >> 4], digits[byte & 0x0f]};
  }
  return result;
}

void PrintPayload(const server::MessageContent& content) {
  Print("payload: " + std::to_string(content.payloadText.size()) + " bytes");
  // Items that couldn't be split are still worth reading.
  if (content.itemCount == 0) Print("  text: " + host::WithoutControls(content.payloadText));
  if (content.itemCount != 0) Print("  items: " + std::to_string(content.itemCount));
  std::string_view lines = content.itemLines;
  for (std::size_t i = 1; !lines.empty(); ++i) {
    const std::size_t end = lines.find('\n');
    Print("  " + std::to_string(i) + ": " + host::WithoutControls(lines.substr(0, end)));
    lines.remove_prefix(end + 1);
  }
}

void PrintSignature(const server::MessageContent& content, bool withKey) {
  Print("signature block: " + std::to_string(content.signatureBlock.size()) + " bytes");
  Print("  header: " + host::WithoutControls(content.signatureHeader));
  Print("  signature: " + (content.signature.empty() ? "none" : Hexadecimal(content.signature)));
  if (content.signatureChecked) {
    Print("  check: valid for this key and this payload");
  } else {
    Print(withKey ? "  check: failed" : "  check: no key given");
  }
}

int Decode(const DecodeOptions& options) {
  const server::SignatureVerifier verifier = ReadKeys(options.keys).verifier;
  const std::string body = ReadWhole(options.file, bodyLimitBytes);
  const server::MessageContent content = server::CheckMessage(body, verifier);
  Print("body: " + std::to_string(body.size()) + " bytes");
  if (content.payloadDecoded) PrintPayload(content);
  if (content.signatureDecoded) PrintSignature(content, !options.keys.empty());
  std::fflush(stdout);
  if (!content.problem.empty()) throw Failure(options.file == "-" ? "stdin" : options.file, content.problem);
  return exitOk;
}

}  // namespace

Command MakeDecodeCommand(CLI::App& program) {
  CLI::App* const command = program.add_subcommand(
      "decode", "Shows a captured message body layer by layer, as far as it is valid.");
  const auto options = std::make_shared<DecodeOptions>();
  command->add_option("--key", options->keys, "public key (PEM) to check the signature with; may be repeated")
      ->type_name("[NAME=]FILE")
      ->allow_extra_args(false);
  command->add_option("FILE", options->file, "file with the body; - for standard input")
      ->type_name("")
      ->capture_default_str();
  command->footer(
      "If a layer is invalid, it says why on standard error and exits with 1.\n"
      "Example: veldrep decode --key product.pub.pem body.json");
  return {command, [options] { return Decode(*options); }};
}

}  // namespace veld_report::app
