// RecordFilter: which records a reader of the page wants to see.
//
// Its text is terms with blanks between them, and a record must fit all. `member:value` fits a record whose
// member has exactly that value, `member:val*` one whose value begins so, `member:` one that has the member.
// Any other term, or one in quotes, is looked for in the record's JSON and in the path of its request, small
// and large letters of ASCII alike. A value or term with blanks goes into quotes: name:"two words".
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "server/page/record_members.h"

namespace veld_report::server {

// Threads: one at a time.
class RecordFilter {
 public:
  static constexpr std::size_t maxBytes = 256;
  static constexpr std::size_t maxTerms = 8;

  // An empty text fits everything. Throws std::invalid_argument with a sentence.
  explicit RecordFilter(std::string_view text);

  bool IsEmpty() const { return words_.empty() && members_.empty(); }
  bool Fits(std::string_view record, std::string_view path, MemberWalk& walk) const;

 private:
  struct MemberTerm {
    std::string path, value;
    bool isPrefix;
  };

  void Add(std::string_view name, std::string value, bool quoted);

  std::vector<std::string> words_;  // in small letters
  std::vector<MemberTerm> members_;
};

}  // namespace veld_report::server
