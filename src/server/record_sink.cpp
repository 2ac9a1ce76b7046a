#include "server/record_sink.h"

#include <simdjson.h>

#include <algorithm>
#include <stdexcept>

#include "server/ndjson_file.h"
#include "server/sqlite_file.h"

namespace veld_report::server {
namespace {

// The text of a member, or nothing if it isn't a short text.
std::string ShortText(simdjson::ondemand::object& object, std::string_view name) {
  constexpr std::size_t maxBytes = 64;
  std::string_view text;
  if (object.find_field_unordered(name).get_string().get(text) != simdjson::SUCCESS) return {};
  return std::string(text.size() <= maxBytes ? text : std::string_view());
}

}  // namespace

// Reads only as far as it must: a record may have numbers that a whole parser refuses. One record at a time,
// since a body can have millions.
void ReadRecords(std::string_view lines, const std::function<void(const SinkRecord&)>& onRecord) {
  simdjson::ondemand::parser parser;
  std::string padded;
  while (!lines.empty()) {
    SinkRecord record{lines.substr(0, lines.find('\n'))};
    lines.remove_prefix(std::min(record.text.size() + 1, lines.size()));
    if (record.text.find("\"record") != std::string_view::npos) {
      padded.assign(record.text).append(simdjson::SIMDJSON_PADDING, ' ');
      simdjson::ondemand::document document;
      simdjson::ondemand::object object;
      if (parser.iterate(padded.data(), record.text.size(), padded.size()).get(document) ==
              simdjson::SUCCESS &&
          document.get_object().get(object) == simdjson::SUCCESS) {
        record.id = ShortText(object, "recordId");
        record.time = ShortText(object, "recordTime");
      }
    }
    onRecord(record);
  }
}

std::unique_ptr<RecordSink> OpenSink(const SinkOptions& options) {
  if (options.path.ends_with(".sqlite")) return std::make_unique<SqliteFile>(options);
  return std::make_unique<NdjsonFile>(options);
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
