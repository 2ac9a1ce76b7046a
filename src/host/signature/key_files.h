// Makes a key pair and writes it to two files.
#pragma once

#include <string>

namespace veld_report::host {

struct KeyFiles {
  std::string privatePath;
  std::string publicPath;
  std::string keyId;
};

// Makes an Ed25519 pair: PREFIX.key.pem, accessible to its owner only from the first byte on, and
// PREFIX.pub.pem. Never overwrites a file: if one exists, it throws std::runtime_error. On any failure it
// removes the files that it made.
KeyFiles GenerateEd25519KeyPair(const std::string& prefix);

}  // namespace veld_report::host
