// The options of veldrep that name key files.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "apps/veldrep/command.h"
#include "server/message_check.h"

namespace veld_report::app {

// The keys whose messages are accepted.
struct KeyRing {
  server::SignatureVerifier verifier;        // empty if there is no key
  std::map<std::string, std::string> names;  // by the key's id
};

// Each of `given` is NAME=FILE, or FILE; then the name is the file's, without ".pem" and ".pub". Throws
// WrongCommandLine if two have the same name, and std::runtime_error with the path and the reason if a public
// key can't be read.
KeyRing ReadKeys(const std::vector<std::string>& given);

// "signatures: required, of product (kPrK...)", or that none is.
std::string DescribeKeys(const KeyRing& keys);

// Complains if others than the file's owner may read it. Of a file that can't be looked at, its reader
// complains.
void WarnIfOthersCanRead(const std::string& option, const std::string& path);

}  // namespace veld_report::app
