// The options that say where records go, which serve and drain share.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "server/record_sink.h"

namespace veld_report::app {

struct OutOptions {
  std::vector<std::string> out;
  std::uint64_t rotateMiB = 0;
  unsigned rotateSeconds = 0;
  std::size_t remember = server::SinkOptions().rememberedIds;
};

// `options` must outlive the command.
void AddOutOptions(CLI::App* command, OutOptions* options);

// Throws WrongCommandLine.
std::vector<server::SinkOptions> ReadSinks(const OutOptions& given);

}  // namespace veld_report::app
