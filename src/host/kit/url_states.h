// What a sender knows of its urls, left in the store's folder for whoever looks in from outside.
//
// The store's queues are named by digests of their urls, and why a queue waits is known only to the process
// that sends. So that process keeps this file beside the store: a line a url, with the name of its queue, the
// url without user and password, and how sending to it goes. It is a note for people: nothing reads it to
// decide anything, and a store without it is whole.
#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/http/http_client.h"

namespace veld_report::host {

struct UrlState {
  std::string queueName{};
  // Of `http`, waitsUntil is exact to the millisecond.
  HttpClientState http{};
};

// Threads: any.
class UrlStateFile {
 public:
  explicit UrlStateFile(const std::filesystem::path& storeFolder);

  // Names the urls of the settings, as they are given there. Writes the file.
  void SetUrls(const std::vector<std::string>& urls);
  // Takes what the client knows, and writes the file if something that a person looks for has changed: a
  // wait, the last status or the last error. Costs next to nothing if the client knows nothing new. A file
  // that can't be written is left as it is, without a word.
  void Update(const HttpClientFactory& http);
  // Forgets the waits, which end with the process. Nothing is written afterwards.
  void Close();

  // What stands in the file; nothing where there is none or it can't be read.
  static std::vector<UrlState> Read(const std::filesystem::path& storeFolder);

 private:
  void Write();

  const std::filesystem::path file_;
  std::mutex mutex_;  // guards the rest; held while the file is written
  std::vector<UrlState> urls_;
  std::string written_;
  std::optional<std::uint64_t> version_;  // of what the client knew at the last update
  bool closed_ = false;
};

}  // namespace veld_report::host
