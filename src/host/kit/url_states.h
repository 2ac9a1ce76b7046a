// What a sender knows of its urls, in a file of the store's folder for anyone who inspects the store.
//
// The store's queues are named by digests of their urls, and only the sending process knows why a queue is
// waiting. So that process keeps this file with the store: one line for each url, with the name of its queue,
// the url without user and password, and the state of sending there. It is information for people: no program
// decides anything by it, and a store without it is complete.
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
  // In `http`, waitsUntil is exact to the millisecond.
  HttpClientState http{};
};

// Threads: any.
class UrlStateFile {
 public:
  explicit UrlStateFile(const std::filesystem::path& storeFolder);

  // Sets the urls, as they are in the settings. Writes the file.
  void SetUrls(const std::vector<std::string>& urls);
  // Takes the client's states, and writes the file if something of interest has changed: a wait, the last
  // status or the last error. Costs next to nothing if the client has nothing new. If the file can't be
  // written, it silently stays as it is.
  void Update(const HttpClientFactory& http);
  // Forgets the waits, which end with the process. Nothing is written afterwards.
  void Close();

  // The content of the file; nothing if there is none or it can't be read.
  static std::vector<UrlState> Read(const std::filesystem::path& storeFolder);

 private:
  void Write();

  const std::filesystem::path file_;
  std::mutex mutex_;  // guards the members below; held while the file is written
  std::vector<UrlState> urls_;
  std::string written_;
  std::optional<std::uint64_t> version_;  // of the client's states at the last update
  bool closed_ = false;
};

}  // namespace veld_report::host
