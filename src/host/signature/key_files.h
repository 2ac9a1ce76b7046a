// Making a key pair as two files.
#pragma once

#include <string>

namespace veld_report::host {

struct KeyFiles {
  std::string privatePath;
  std::string publicPath;
  std::string keyId;
};

// Makes an Ed25519 pair: PREFIX.key.pem, readable and writable by the owner alone from its first byte on, and
// PREFIX.pub.pem. Existing files are never overwritten: it throws std::runtime_error, and then, as on any
// other failure, leaves no file of its own behind.
KeyFiles GenerateEd25519KeyPair(const std::string& prefix);

}  // namespace veld_report::host
