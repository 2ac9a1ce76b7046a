#include "server/page/record_filter.h"

#include <algorithm>
#include <bitset>
#include <stdexcept>

namespace veld_report::server {
namespace {

char Small(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool Contains(std::string_view text, std::string_view word) {
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [](char one, char other) { return Small(one) == other; }) != text.end();
}

}  // namespace

RecordFilter::RecordFilter(std::string_view text) {
  if (text.size() > maxBytes)
    throw std::invalid_argument("the filter is longer than " + std::to_string(maxBytes) + " bytes");
  constexpr std::string_view blanks = " \t\r\n";
  while (true) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    if (text.empty()) break;
    // A name ends at the first colon, unless the term is a url ("http://...").
    const std::size_t end = std::min(text.find_first_of(" \t\r\n\":"), text.size());
    const bool named =
        end != 0 && end < text.size() && text[end] == ':' && !text.substr(end + 1).starts_with("//");
    const std::string_view name = text.substr(0, named ? end : 0);
    if (named) text.remove_prefix(end + 1);
    const bool quoted = text.starts_with('"');
    if (quoted) text.remove_prefix(1);
    const std::size_t length = std::min(quoted ? text.find('"') : text.find_first_of(blanks), text.size());
    if (quoted && length == text.size())
      throw std::invalid_argument("the filter has a quote that isn't closed");
    Add(name, std::string(text.substr(0, length)), quoted);
    text.remove_prefix(std::min(length + (quoted ? 1 : 0), text.size()));
  }
}

void RecordFilter::Add(std::string_view name, std::string value, bool quoted) {
  if (words_.size() + members_.size() == maxTerms)
    throw std::invalid_argument("the filter has more than " + std::to_string(maxTerms) + " terms");
  if (name.empty()) {
    std::transform(value.begin(), value.end(), value.begin(), Small);
    words_.push_back(std::move(value));
    return;
  }
  // Without a value, any will do.
  const bool isPrefix = !quoted && (value.empty() || value.back() == '*');
  if (isPrefix && !value.empty()) value.pop_back();
  members_.push_back({std::string(name), std::move(value), isPrefix});
}

bool RecordFilter::Fits(std::string_view record, std::string_view path, MemberWalk& walk) const {
  for (const std::string& word : words_) {
    if (!Contains(record, word) && !Contains(path, word)) return false;
  }
  if (members_.empty()) return true;
  std::bitset<maxTerms> fitting;
  walk.Walk(record, [&](const RecordMember& member) {
    for (std::size_t i = 0; i < members_.size(); ++i) {
      const MemberTerm& term = members_[i];
      if (member.path == term.path &&
          (term.isPrefix ? member.value.starts_with(term.value) : member.value == term.value))
        fitting.set(i);
    }
    return fitting.count() < members_.size();
  });
  return fitting.count() == members_.size();
}

}  // namespace veld_report::server
