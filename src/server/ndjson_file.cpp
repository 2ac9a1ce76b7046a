#include "server/ndjson_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace veld_report::server {
namespace {

std::string Reason() { return std::generic_category().message(errno); }

// Returns false, with errno set, if the file can't be written.
bool WriteAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

NdjsonFile::NdjsonFile(const SinkOptions& options)
    : options_(options), clock_(options.clock ? options.clock : std::make_shared<host::SystemClock>()) {
  Adopt(Open());
  if (file_.tornBytes == 0 || !options_.log) return;
  options_.log(path_ + ": removed an incomplete last line of " + std::to_string(file_.tornBytes) + " bytes");
}

NdjsonFile::~NdjsonFile() { close(file_.handle); }

void NdjsonFile::Fail(const std::string& what) const { throw std::runtime_error(path_ + ": " + what); }

NdjsonFile::OpenFile NdjsonFile::Open() const {
  OpenFile file;
  file.handle = open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  if (file.handle < 0) Fail("can't be opened: " + Reason());
  try {
    struct stat status {};
    if (fstat(file.handle, &status) != 0) Fail("can't be examined: " + Reason());
    if (!S_ISREG(status.st_mode)) Fail("isn't a regular file, so it can't be synced");
    if (flock(file.handle, LOCK_EX | LOCK_NB) != 0)
      Fail("is being written by another process; give each server a file of its own");
    if (fstat(file.handle, &status) != 0) Fail("can't be examined: " + Reason());
    file.size = static_cast<std::uint64_t>(status.st_size);
    SyncFolder();
    RepairTail(&file);
  } catch (...) {
    close(file.handle);
    throw;
  }
  return file;
}

void NdjsonFile::Adopt(const OpenFile& fresh) {
  if (file_.handle >= 0) close(file_.handle);
  file_ = fresh;
  hasPartialLine_ = false;
  opened_ = clock_->Now();
}

// A new file, or a new name, is durable only once its folder is synced.
void NdjsonFile::SyncFolder() const {
  std::filesystem::path folder = std::filesystem::path(path_).parent_path();
  if (folder.empty()) folder = ".";
  const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) Fail("its folder can't be opened: " + Reason());
  const bool synced = fsync(handle) == 0;
  const std::string reason = synced ? "" : Reason();
  close(handle);
  if (!synced) Fail("its folder can't be synced: " + reason);
}

void NdjsonFile::RepairTail(OpenFile* file) const {
  std::vector<char> block(65536);
  std::uint64_t whole = file->size;
  while (whole > 0) {
    const std::uint64_t begin = whole - std::min<std::uint64_t>(whole, block.size());
    const auto length = static_cast<std::size_t>(whole - begin);
    if (pread(file->handle, block.data(), length, static_cast<off_t>(begin)) !=
        static_cast<ssize_t>(length)) {
      Fail("can't be read: " + Reason());
    }
    const void* lineEnd = memrchr(block.data(), '\n', length);
    if (lineEnd) {
      whole = begin + static_cast<std::uint64_t>(static_cast<const char*>(lineEnd) - block.data()) + 1;
      break;
    }
    whole = begin;
  }
  file->tornBytes = file->size - whole;
  if (file->tornBytes == 0) return;
  if (ftruncate(file->handle, static_cast<off_t>(whole)) != 0 || fdatasync(file->handle) != 0) {
    Fail("its incomplete last line can't be removed: " + Reason());
  }
  file->size = whole;
}

void NdjsonFile::WriteGroup(std::vector<Member>& group) {
  std::string lines;
  std::unordered_set<std::string> fresh;
  for (Member& member : group) {
    ReadRecords(member.packet->lines, [&](const SinkRecord& record) {
      if (ids_.contains(record.id) || fresh.contains(record.id)) {
        ++member.result.repeated;
        return;
      }
      // More than can be remembered would only fill the memory.
      if (!record.id.empty() && fresh.size() < rememberedIds) fresh.insert(record.id);
      lines.append(record.text).push_back('\n');
      ++member.result.stored;
    });
  }
  if (lines.empty()) return;
  if (IsTimeToRotate(lines.size())) Rotate();
  Append(lines);
  Remember(fresh);
}

void NdjsonFile::Append(const std::string& lines) {
  if (hasPartialLine_ && !CutBack()) Fail("its incomplete last line can't be removed: " + Reason());
  std::string failure;
  if (!WriteAll(file_.handle, lines)) {
    failure = "can't be written: " + Reason();
  } else if (fdatasync(file_.handle) != 0) {
    // Nobody knows which bytes are safe, so all of them go.
    failure = "can't be synced: " + Reason();
  }
  if (failure.empty()) {
    file_.size += lines.size();
    return;
  }
  CutBack();
  Fail(failure);
}

bool NdjsonFile::CutBack() {
  hasPartialLine_ = ftruncate(file_.handle, static_cast<off_t>(file_.size)) != 0;
  return !hasPartialLine_;
}

// If memory runs out here, what is stored may be stored once more, but it is stored.
void NdjsonFile::Remember(std::unordered_set<std::string>& ids) {
  while (!ids.empty()) {
    const auto added = ids_.insert(ids.extract(ids.begin())).position;
    idsByAge_.push_back(&*added);
  }
  for (; idsByAge_.size() > rememberedIds; idsByAge_.pop_front()) ids_.erase(ids_.find(*idsByAge_.front()));
}

bool NdjsonFile::IsTimeToRotate(std::size_t bytes) const {
  if (file_.size == 0) return false;
  if (options_.rotateBytes != 0 && file_.size + bytes > options_.rotateBytes) return true;
  return options_.rotateEvery.count() != 0 && clock_->Now() - opened_ >= options_.rotateEvery;
}

void NdjsonFile::Rotate() {
  if (hasPartialLine_ && !CutBack()) Fail("its incomplete last line can't be removed: " + Reason());
  // If an earlier attempt failed half-way, the file has its new name already.
  if (rename(path_.c_str(), RotatedName().c_str()) != 0 && errno != ENOENT)
    Fail("can't be rotated: " + Reason());
  Adopt(Open());
}

std::string NdjsonFile::RotatedName() const {
  const std::time_t now = host::Clock::WallTimePoint::clock::to_time_t(clock_->WallNow());
  std::tm utc{};
  gmtime_r(&now, &utc);
  char moment[32];
  moment[std::strftime(moment, sizeof moment, "%Y%m%dT%H%M%SZ", &utc)] = '\0';
  const std::string base = path_ + "." + moment;
  std::string name = base;
  for (int i = 1; access(name.c_str(), F_OK) == 0; ++i) name = base + "-" + std::to_string(i);
  return name;
}

void NdjsonFile::ReopenFile() {
  struct stat own {
  }, named{};
  if (fstat(file_.handle, &own) != 0) Fail("can't be examined: " + Reason());
  const bool isSame =
      stat(path_.c_str(), &named) == 0 && own.st_dev == named.st_dev && own.st_ino == named.st_ino;
  if (isSame) return;
  // Whoever moved the file must not find half a line in it.
  if (hasPartialLine_ && !CutBack()) Fail("its incomplete last line can't be removed: " + Reason());
  Adopt(Open());
}

}  // namespace veld_report::server
