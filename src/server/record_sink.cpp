#include "server/record_sink.h"

#include <simdjson.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace veld_report::server {
namespace {

// The text of a member, or nothing if it isn't a short one.
void ReadShortText(simdjson::ondemand::object& object, std::string_view name, std::string* into) {
  constexpr std::size_t maxBytes = 64;
  std::string_view text;
  if (object.find_field_unordered(name).get_string().get(text) != simdjson::SUCCESS) return;
  // Not every database takes a zero character.
  if (text.size() <= maxBytes && text.find('\0') == std::string_view::npos) into->assign(text);
}

}  // namespace

// Reads only as far as it must: a record may have numbers that a whole parser refuses. One record at a time,
// since a body can have millions.
void ReadRecords(std::string_view lines, const std::function<void(const SinkRecord&)>& onRecord) {
  simdjson::ondemand::parser parser;
  std::string padded;
  SinkRecord record;  // one for all, so that its texts are allocated once
  while (!lines.empty()) {
    record.text = lines.substr(0, lines.find('\n'));
    record.id.clear();
    record.time.clear();
    lines.remove_prefix(std::min(record.text.size() + 1, lines.size()));
    if (record.text.find("\"record") != std::string_view::npos) {
      padded.assign(record.text).append(simdjson::SIMDJSON_PADDING, ' ');
      simdjson::ondemand::document document;
      simdjson::ondemand::object object;
      if (parser.iterate(padded.data(), record.text.size(), padded.size()).get(document) ==
              simdjson::SUCCESS &&
          document.get_object().get(object) == simdjson::SUCCESS) {
        ReadShortText(object, "recordId", &record.id);
        ReadShortText(object, "recordTime", &record.time);
      }
    }
    onRecord(record);
  }
}

std::string TextOfTime(host::Clock::WallTimePoint moment) {
  using std::chrono::milliseconds;
  const auto whole = std::chrono::floor<std::chrono::seconds>(moment);
  const auto ms = std::chrono::floor<milliseconds>(moment - whole).count();
  const std::time_t seconds = host::Clock::WallTimePoint::clock::to_time_t(whole);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  length += static_cast<std::size_t>(
      std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(ms)));
  return {text, length};
}

StoreResult GroupingSink::Store(const SinkPacket& packet) {
  std::unique_lock lock(mutex_);
  std::shared_ptr<Group> group = open_;
  const std::size_t own = group ? group->members.size() : 0;
  if (group) {
    group->members.push_back({&packet});
    changed_.wait(lock, [&] { return group->done; });
  } else {
    group = std::make_shared<Group>();
    group->members.push_back({&packet});
    open_ = group;
    changed_.wait(lock, [&] { return !writing_; });
    writing_ = true;
    open_.reset();
    lock.unlock();
    std::string failure;
    try {
      WriteGroup(group->members);
    } catch (const std::runtime_error& error) {
      failure = error.what();
    } catch (const std::exception&) {
      failure = "out of memory";  // short enough to need none
    }
    lock.lock();
    writing_ = false;
    group->failure = std::move(failure);
    group->done = true;
    changed_.notify_all();
  }
  if (!group->failure.empty()) throw std::runtime_error(group->failure);
  return group->members[own].result;
}

void GroupingSink::Reopen() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !writing_; });
  writing_ = true;
  lock.unlock();
  const auto end = [&] {
    lock.lock();
    writing_ = false;
    changed_.notify_all();
  };
  try {
    ReopenFile();
  } catch (...) {
    end();
    throw;
  }
  end();
}

}  // namespace veld_report::server
