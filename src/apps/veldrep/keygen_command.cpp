// veldrep keygen: an Ed25519 key pair, for send --sign and serve --key.
#include <cstdio>
#include <memory>

#include "apps/veldrep/command.h"
#include "host/signature/key_files.h"

namespace veld_report::app {

Command MakeKeygenCommand(CLI::App& program) {
  CLI::App* const command =
      program.add_subcommand("keygen", "Makes an Ed25519 key pair: PREFIX.key.pem and PREFIX.pub.pem.");
  const auto prefix = std::make_shared<std::string>();
  command->add_option("PREFIX", *prefix, "path and first part of the names of both files")->required();
  command->footer(
      "Sign with the private key (send --sign) and keep it secret. Check with the public key (serve --key).\n"
      "Existing files are never overwritten.\n"
      "Example: veldrep keygen keys/product");
  return {command, [prefix] {
            const host::KeyFiles files = host::GenerateEd25519KeyPair(*prefix);
            std::printf("private key: %s\npublic key: %s\nkey id: %s\n", files.privatePath.c_str(),
                        files.publicPath.c_str(), files.keyId.c_str());
            return static_cast<int>(exitOk);
          }};
}

}  // namespace veld_report::app
