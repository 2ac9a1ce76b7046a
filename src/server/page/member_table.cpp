#include "server/page/member_table.h"

#include <algorithm>
#include <charconv>

namespace veld_report::server {
namespace {

// Without a torn character at the end. Longer values that begin alike count as one.
std::string Beginning(std::string_view text) {
  if (text.size() <= MemberTable::maxValueBytes) return std::string(text);
  std::size_t length = MemberTable::maxValueBytes;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) --length;
  return std::string(text.substr(0, length)) + "…";
}

}  // namespace

void MemberTable::Add(std::string_view record) {
  ++records_;
  bool others = false;
  walk_.Walk(record, [&](const RecordMember& found) {
    auto place = places_.find(std::string(found.path));
    if (place == places_.end()) {
      if (members_.size() == maxMembers || found.path.size() > maxPathBytes) {
        others = true;
        return true;
      }
      place = places_.emplace(found.path, members_.size()).first;
      members_.push_back({std::string(found.path)});
    }
    Count(members_[place->second], found);
    return true;
  });
  if (others) ++recordsWithOthers_;
}

void MemberTable::Count(MemberFigures& member, const RecordMember& found) {
  // A member that a record has twice counts once.
  if (member.lastRecord == records_) return;
  member.lastRecord = records_;
  ++member.records;
  ++member.types[static_cast<std::size_t>(found.type)];
  double number = 0;
  if (found.type == MemberType::number &&
      std::from_chars(found.value.data(), found.value.data() + found.value.size(), number).ec ==
          std::errc()) {
    member.minimum = std::min(member.minimum.value_or(number), number);
    member.maximum = std::max(member.maximum.value_or(number), number);
  }
  std::string value = Beginning(found.value);
  const auto known = member.values.find(value);
  if (known != member.values.end()) {
    ++known->second;
  } else if (values_ < maxValues) {
    ++values_;
    member.values.emplace(std::move(value), 1);
  } else {
    ++member.untold;
  }
}

std::vector<std::pair<std::string, std::size_t>> MemberTable::Commonest(const MemberFigures& member,
                                                                        std::size_t count) {
  std::vector<std::pair<std::string, std::size_t>> all(member.values.begin(), member.values.end());
  const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(count, all.size()));
  std::partial_sort(all.begin(), end, all.end(), [](const auto& one, const auto& other) {
    return one.second != other.second ? one.second > other.second : one.first < other.first;
  });
  all.erase(end, all.end());
  return all;
}

}  // namespace veld_report::server
