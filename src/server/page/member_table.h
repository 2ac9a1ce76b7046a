// MemberTable: for each member of the records its types, how many records have it, and its commonest values.
//
// Made anew for each look from what the window holds, so that nothing has to be taken back when a record
// leaves it. Its memory is limited: 200 members with paths of up to 200 bytes, and together 50,000 different
// values of up to 80 bytes. What is beyond that is counted as such.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "server/page/record_members.h"

namespace veld_report::server {

inline constexpr std::size_t memberTypeCount = 6;

struct MemberFigures {
  std::string path{};
  std::size_t records = 0;                                // that have it
  std::array<std::size_t, memberTypeCount> types{};       // in the order of MemberType
  std::optional<double> minimum{}, maximum{};             // of its numbers
  std::unordered_map<std::string, std::size_t> values{};  // cut at 80 bytes
  std::size_t untold = 0;                                 // values that weren't counted one by one any more
  std::size_t lastRecord = 0;
};

// Threads: one at a time.
class MemberTable {
 public:
  static constexpr std::size_t maxMembers = 200;
  static constexpr std::size_t maxPathBytes = 200;
  static constexpr std::size_t maxValues = 50'000;
  static constexpr std::size_t maxValueBytes = 80;

  void Add(std::string_view record);

  std::size_t Records() const { return records_; }
  // In the order in which they first came.
  const std::vector<MemberFigures>& Members() const { return members_; }
  // Records with members that have no figures of their own: too many, or with too long a path.
  std::size_t RecordsWithOthers() const { return recordsWithOthers_; }
  // The commonest values of a member with their counts, at most `count`.
  static std::vector<std::pair<std::string, std::size_t>> Commonest(const MemberFigures& member,
                                                                    std::size_t count);

 private:
  void Count(MemberFigures& member, const RecordMember& found);

  MemberWalk walk_;
  std::vector<MemberFigures> members_;
  std::unordered_map<std::string, std::size_t> places_;  // by path
  std::size_t records_ = 0, values_ = 0, recordsWithOthers_ = 0;
};

}  // namespace veld_report::server
