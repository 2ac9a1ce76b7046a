// The --key option of serve and decode.
#pragma once

#include <string>

#include "server/message_check.h"

namespace veld_report::app {

// Reads a public key. Throws std::runtime_error with the path and the reason.
server::SignatureVerifier VerifierFromFile(const std::string& path);

}  // namespace veld_report::app
