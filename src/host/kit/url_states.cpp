#include "host/kit/url_states.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <string_view>
#include <unordered_map>

#include "host/base/redact.h"
#include "host/platform/file.h"
#include "host/services/queue_name.h"

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

std::filesystem::path StateFile(const std::filesystem::path& storeFolder) {
  return storeFolder / "urls.state";
}

// Keeps a field from ending its line or its column.
std::string Field(std::string_view text) {
  std::string field(text);
  std::ranges::replace_if(
      field, [](char each) { return static_cast<unsigned char>(each) < 0x20; }, ' ');
  return field;
}

std::string Line(const UrlState& state) {
  const std::int64_t waitsUntilMs =
      state.http.waitsUntil
          ? std::chrono::duration_cast<milliseconds>(state.http.waitsUntil->time_since_epoch()).count()
          : 0;
  return state.queueName + '\t' + std::to_string(waitsUntilMs) + '\t' +
         std::to_string(state.http.lastStatus) + '\t' + std::to_string(state.http.failures) + '\t' +
         Field(state.http.url) + '\t' + Field(state.http.lastError) + '\n';
}

template <class Number>
bool ParseNumber(std::string_view text, Number* out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return error == std::errc() && end == text.data() + text.size();
}

// Returns nothing for anything but a line of this file.
std::optional<UrlState> ParseLine(std::string_view line) {
  std::array<std::string_view, 6> fields;
  for (std::size_t i = 0; i + 1 < fields.size(); ++i) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos) return std::nullopt;
    fields[i] = line.substr(0, tab);
    line.remove_prefix(tab + 1);
  }
  fields.back() = line;
  UrlState state{.queueName = std::string(fields[0])};
  std::int64_t waitsUntilMs = 0;
  if (!ParseNumber(fields[1], &waitsUntilMs) || !ParseNumber(fields[2], &state.http.lastStatus) ||
      !ParseNumber(fields[3], &state.http.failures)) {
    return std::nullopt;
  }
  if (waitsUntilMs != 0) state.http.waitsUntil = system_clock::time_point(milliseconds(waitsUntilMs));
  state.http.url = fields[4];
  state.http.lastError = fields[5];
  return state;
}

// A reader sees the old content or the new one, never a part.
bool ReplaceFile(const std::filesystem::path& file, const std::string& content) {
  const std::filesystem::path fresh = WithEnding(file, ".new");
  File written = File::Open(fresh, File::Mode::replace);
  if (!written || written.Write(content) != content.size()) return false;
  written.Close();
  return !Rename(fresh, file);
}

}  // namespace

UrlStateFile::UrlStateFile(const std::filesystem::path& storeFolder) : file_(StateFile(storeFolder)) {}

void UrlStateFile::SetUrls(const std::vector<std::string>& urls) {
  const std::lock_guard lock(mutex_);
  open_ = true;
  urls_.clear();
  places_.clear();
  for (const std::string& url : urls) {
    places_[url].push_back(urls_.size());
    urls_.push_back({.queueName = QueueNameOfUrl(url), .http = {.url = WithoutCredentials(url)}});
  }
  Write();
}

void UrlStateFile::Update(const std::string& url, const HttpClientFactory& http) {
  const std::lock_guard lock(mutex_);
  const auto places = places_.find(url);
  const std::optional<HttpClientState> state = http.StateOf(url);
  if (!open_ || places == places_.end() || !state) return;
  UrlState& first = urls_[places->second.front()];
  const std::string before = Line(first);
  for (const std::size_t place : places->second) urls_[place].http = *state;
  const std::string line = Line(first);
  if (line != before) Append(line);
}

void UrlStateFile::Close() {
  const std::lock_guard lock(mutex_);
  for (UrlState& each : urls_) each.http.waitsUntil.reset();
  Write();
  open_ = false;
}

void UrlStateFile::Append(const std::string& line) {
  // So the file stays within a few times its size, and what is written within a few times the changes.
  constexpr std::size_t freeBytes = 16 << 10;
  if (appendedBytes_ + line.size() > wholeBytes_ + freeBytes) return Write();
  File file = File::Open(file_, File::Mode::appendExisting);
  if (!file || file.Write(line) != line.size()) return Write();
  appendedBytes_ += line.size();
}

void UrlStateFile::Write() {
  if (!open_) return;
  std::string content;
  for (const UrlState& each : urls_) content += Line(each);
  if (!ReplaceFile(file_, content)) return;
  wholeBytes_ = content.size();
  appendedBytes_ = 0;
}

std::vector<UrlState> UrlStateFile::Read(const std::filesystem::path& storeFolder) {
  std::vector<UrlState> states;
  std::unordered_map<std::string, std::size_t> places;
  std::ifstream file(SystemPath(StateFile(storeFolder)));
  for (std::string line; std::getline(file, line);) {
    // A line without its end is still being written.
    auto state = file.eof() ? std::nullopt : ParseLine(line);
    if (!state) continue;
    const auto [place, added] = places.try_emplace(state->queueName, states.size());
    if (added) {
      states.push_back(std::move(*state));
    } else {
      states[place->second] = std::move(*state);
    }
  }
  return states;
}

}  // namespace veld_report::host
