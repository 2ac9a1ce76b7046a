// The options of veldrep send.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace veld_report::app {

struct SendOptions {
  std::string store;
  std::vector<std::string> urls;
  std::vector<std::string> consumers;  // empty, or one for each url, by position
  std::uint32_t packetLimit = 100;
  std::uint32_t queueLimitKb = 1 << 20;
  std::uint32_t sendTimeoutSeconds = 1;
  bool allowHttp = false;
  bool stamp = false;
  std::vector<std::string> certificates;  // of the urls of https://: files in PEM form, or pins
  std::string compress = "none";          // of the messages to all urls: none, gzip or zstd
  std::string signKey;
  std::string to;  // the consumer of the records; empty: all
  std::string trace;
  std::uint32_t traceLevel = 300;
  std::uint32_t waitSeconds = 60;
  std::string modulePath;      // empty: the one next to the program
  std::string file;            // empty: no input, send only what is waiting
  std::uint64_t fromLine = 1;  // of the file; those before it are skipped
};

}  // namespace veld_report::app
