#include "server/ndjson_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

NdjsonFile::NdjsonFile(const std::string& path) : path_(path) {
  try {
    Open();
    RepairTail();
  } catch (...) {
    if (file_ >= 0) close(file_);
    throw;
  }
}

NdjsonFile::~NdjsonFile() { close(file_); }

void NdjsonFile::Fail(const std::string& what) const { throw std::runtime_error(path_ + ": " + what); }

void NdjsonFile::Open() {
  file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  if (file_ < 0) Fail("can't be opened: " + Reason());
  struct stat status {};
  if (fstat(file_, &status) != 0) Fail("can't be examined: " + Reason());
  if (!S_ISREG(status.st_mode)) Fail("isn't a regular file, so it can't be synced");
  if (flock(file_, LOCK_EX | LOCK_NB) != 0)
    Fail("is being written by another process; give each server a file of its own");
  if (fstat(file_, &status) != 0) Fail("can't be examined: " + Reason());
  size_ = static_cast<std::uint64_t>(status.st_size);
  SyncFolder();
}

// A new file is durable only once its folder is synced.
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

void NdjsonFile::RepairTail() {
  std::vector<char> block(65536);
  std::uint64_t whole = size_;
  while (whole > 0) {
    const std::uint64_t begin = whole - std::min<std::uint64_t>(whole, block.size());
    const auto length = static_cast<std::size_t>(whole - begin);
    if (pread(file_, block.data(), length, static_cast<off_t>(begin)) != static_cast<ssize_t>(length)) {
      Fail("can't be read: " + Reason());
    }
    const void* lineEnd = memrchr(block.data(), '\n', length);
    if (lineEnd) {
      whole = begin + static_cast<std::uint64_t>(static_cast<const char*>(lineEnd) - block.data()) + 1;
      break;
    }
    whole = begin;
  }
  tornBytes_ = size_ - whole;
  if (tornBytes_ == 0) return;
  if (ftruncate(file_, static_cast<off_t>(whole)) != 0 || fdatasync(file_) != 0) {
    Fail("its incomplete last line can't be removed: " + Reason());
  }
  size_ = whole;
}

void NdjsonFile::Append(std::string_view lines) {
  if (lines.empty()) return;
  std::unique_lock lock(mutex_);
  std::shared_ptr<Batch> batch = open_;
  if (batch) {
    batch->lines.append(lines);
    changed_.wait(lock, [&] { return batch->done; });
  } else {
    batch = std::make_shared<Batch>();
    batch->lines = lines;
    open_ = batch;
    changed_.wait(lock, [&] { return !writing_; });
    writing_ = true;
    open_.reset();
    lock.unlock();
    std::string failure;
    try {
      failure = Write(batch->lines);
    } catch (const std::exception&) {
      failure = "out of memory";  // short enough to need none
    }
    lock.lock();
    writing_ = false;
    batch->failure = std::move(failure);
    batch->done = true;
    changed_.notify_all();
  }
  if (!batch->failure.empty()) Fail(batch->failure);
}

std::string NdjsonFile::Write(const std::string& lines) {
  if (broken_)
    return "ends in an incomplete line that can't be removed; restart the server when the disk works again";
  if (!WriteAll(file_, lines)) return CutBack("can't be written: " + Reason());
  // After a failed sync nobody knows which bytes are safe, so the whole batch goes.
  if (fdatasync(file_) != 0) return CutBack("can't be synced: " + Reason());
  size_ += lines.size();
  return {};
}

std::string NdjsonFile::CutBack(const std::string& failure) {
  if (ftruncate(file_, static_cast<off_t>(size_)) != 0) broken_ = true;
  return failure;
}

}  // namespace veld_report::server
