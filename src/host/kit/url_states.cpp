#include "host/kit/url_states.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <string_view>
#include <unordered_map>

#include "host/base/redact.h"
#include "host/queue/store_folder.h"
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
  const std::filesystem::path fresh = file.string() + ".new";
  const int descriptor = OpenPrivateFile(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool written =
      ::write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  ::close(descriptor);
  std::error_code error;
  if (written) std::filesystem::rename(fresh, file, error);
  return written && !error;
}

}  // namespace

UrlStateFile::UrlStateFile(const std::filesystem::path& storeFolder) : file_(StateFile(storeFolder)) {}

void UrlStateFile::SetUrls(const std::vector<std::string>& urls) {
  const std::lock_guard lock(mutex_);
  urls_.clear();
  version_.reset();
  for (const std::string& url : urls) {
    urls_.push_back({.queueName = QueueNameOfUrl(url), .http = {.url = WithoutCredentials(url)}});
  }
  Write();
}

void UrlStateFile::Update(const HttpClientFactory& http) {
  const std::lock_guard lock(mutex_);
  // Read before the states, so that a later change is noticed next time.
  const std::uint64_t version = http.StatesVersion();
  if (version_ == version) return;
  version_ = version;
  const std::vector<HttpClientState> states = http.States();
  std::unordered_map<std::string_view, const HttpClientState*> known;
  for (const HttpClientState& state : states) known.emplace(state.url, &state);
  for (UrlState& each : urls_) {
    const auto found = known.find(each.http.url);
    if (found != known.end()) each.http = *found->second;
  }
  Write();
}

void UrlStateFile::Close() {
  const std::lock_guard lock(mutex_);
  for (UrlState& each : urls_) each.http.waitsUntil.reset();
  Write();
  closed_ = true;
}

void UrlStateFile::Write() {
  if (closed_) return;
  std::string content;
  for (const UrlState& each : urls_) content += Line(each);
  if (content != written_ && ReplaceFile(file_, content)) written_ = std::move(content);
}

std::vector<UrlState> UrlStateFile::Read(const std::filesystem::path& storeFolder) {
  std::vector<UrlState> states;
  std::ifstream file(StateFile(storeFolder));
  for (std::string line; std::getline(file, line);) {
    if (auto state = ParseLine(line)) states.push_back(std::move(*state));
  }
  return states;
}

}  // namespace veld_report::host
