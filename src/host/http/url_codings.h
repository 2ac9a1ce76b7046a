// UrlCodings knows how the bodies for each url are compressed: as its endpoint asks, unless the server
// refused that.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "host/http/body_coding.h"

namespace veld_report::host {

using CodingTable = std::map<std::string, BodyCoding>;  // by url

// Threads: any.
class UrlCodings {
 public:
  // Urls that aren't in the table get plain bodies. What servers refused stays refused.
  void Set(CodingTable table) {
    const std::lock_guard lock(mutex_);
    table_.swap(table);
  }
  BodyCoding Of(const std::string& url) const {
    const std::lock_guard lock(mutex_);
    const auto row = table_.find(url);
    return row == table_.end() || refused_.contains(url) ? BodyCoding::none : row->second;
  }
  // From now on this url gets plain bodies. Throws std::bad_alloc.
  void Refuse(const std::string& url) {
    const std::lock_guard lock(mutex_);
    refused_.insert(url);
  }

 private:
  mutable std::mutex mutex_;  // guards the members below
  CodingTable table_;
  std::set<std::string> refused_;
};

}  // namespace veld_report::host
