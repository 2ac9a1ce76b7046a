// What a sender knows of its urls, in a file of the store's folder for anyone who inspects the store.
//
// The store's queues are named by digests of their urls, and only the sending process knows why a queue is
// waiting. So that process keeps this file with the store: one line for each url, with the name of its queue,
// the url without user and password, and the state of sending there. It is information for people: no program
// decides anything by it, and a store without it is complete. A change appends a line, and the last line of a
// queue counts: with thousands of urls, writing all of them for each answer would keep a disk busy.
#pragma once

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
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
  // Takes the client's state of this url, and appends a line if it has changed. If the file can't be written,
  // it silently stays as it is.
  void Update(const std::string& url, const HttpClientFactory& http);
  // Forgets the waits, which end with the process. Nothing is written afterwards, nor if no urls were set:
  // the file of an earlier sender then stays.
  void Close();

  // The content of the file; nothing if there is none or it can't be read.
  static std::vector<UrlState> Read(const std::filesystem::path& storeFolder);

 private:
  void Write();
  void Append(const std::string& line);

  const std::filesystem::path file_;
  std::mutex mutex_;  // guards the members below; held while the file is written
  std::vector<UrlState> urls_;
  std::unordered_map<std::string, std::vector<std::size_t>> places_;  // in urls_, by url
  std::size_t wholeBytes_ = 0;     // of the file when it was last written as a whole
  std::size_t appendedBytes_ = 0;  // since then
  bool open_ = false;              // between SetUrls and Close
};

}  // namespace veld_report::host
