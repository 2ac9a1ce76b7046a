#include "server/ndjson_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace veld_report::server {
namespace {

constexpr char notOurs[] = "isn't a file of JSON lines, so nothing is appended to it; name another file";
// Far above the longest line that a packet can hold.
constexpr std::size_t maxTailBytes = std::size_t{2} << 30;

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

bool ReadAll(int file, std::uint64_t offset, char* to, std::size_t length) {
  while (length > 0) {
    const ssize_t got = pread(file, to, length, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    to += got;
    offset += static_cast<std::uint64_t>(got);
    length -= static_cast<std::size_t>(got);
  }
  return true;
}

// What the end of a file without a line end is: ours is the beginning of a JSON object on one line. A loss of
// power can leave zero bytes in place of its end.
enum class TailKind { torn, whole, foreign };

TailKind KindOfTail(std::string_view tail) {
  const std::string_view text = tail.substr(0, tail.find('\0'));
  if (tail.find_first_not_of('\0', text.size()) != std::string_view::npos) return TailKind::foreign;
  if (!text.empty() && text.front() != '{') return TailKind::foreign;
  bool inString = false;
  int depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char each = text[i];
    if (static_cast<unsigned char>(each) < 0x20 && each != '\t' && each != '\r') return TailKind::foreign;
    if (each == '"') inString = !inString;
    if (inString && each == '\\') ++i;
    if (inString) continue;
    depth += each == '{' || each == '[' ? 1 : each == '}' || each == ']' ? -1 : 0;
    if (depth == 0) return i + 1 == tail.size() ? TailKind::whole : TailKind::foreign;
  }
  return TailKind::torn;
}

}  // namespace

NdjsonFile::NdjsonFile(const SinkOptions& options)
    : options_(options),
      clock_(options.clock ? options.clock : std::make_shared<host::SystemClock>()),
      ids_(options.rememberedIds) {
  Adopt(Open());
  try {
    Recall();
  } catch (...) {
    close(file_.handle);
    throw;
  }
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
    RepairTail(&file);
    SyncFolder();
  } catch (...) {
    close(file.handle);
    throw;
  }
  return file;
}

void NdjsonFile::Adopt(const OpenFile& fresh) {
  if (file_.handle >= 0) close(file_.handle);
  file_ = fresh;
  partial_.clear();
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

void NdjsonFile::Say(const std::string& sentence) const {
  if (options_.log) options_.log(path_ + ": " + sentence);
}

// The text after the last line end.
std::string NdjsonFile::LastLine(const OpenFile& file) const {
  constexpr std::uint64_t blockBytes = 65536;
  std::string tail;
  for (std::uint64_t begin = file.size; begin > 0;) {
    const auto length = static_cast<std::size_t>(std::min(begin, blockBytes));
    begin -= length;
    std::string block(length, '\0');
    if (!ReadAll(file.handle, begin, block.data(), length)) Fail("can't be read: " + Reason());
    const std::size_t lineEnd = block.rfind('\n');
    if (lineEnd != std::string::npos) return block.substr(lineEnd + 1) + tail;
    tail.insert(0, block);
    if (tail.size() > maxTailBytes) Fail(notOurs);
  }
  return tail;
}

void NdjsonFile::RepairTail(OpenFile* file) const {
  if (file->size == 0) return;
  char first = 0;
  if (!ReadAll(file->handle, 0, &first, 1)) Fail("can't be read: " + Reason());
  const std::string tail = LastLine(*file);
  const TailKind kind = KindOfTail(tail);
  // An empty tail is "torn" at its first byte.
  if ((first != '{' && tail.size() != file->size) || kind == TailKind::foreign) Fail(notOurs);
  file->endsInLine = kind == TailKind::whole;
  if (kind == TailKind::whole || tail.empty()) return;
  MoveAside(tail);
  file->size -= tail.size();
  if (ftruncate(file->handle, static_cast<off_t>(file->size)) != 0 || fdatasync(file->handle) != 0)
    Fail("its incomplete last line can't be removed: " + Reason());
}

void NdjsonFile::MoveAside(const std::string& torn) const {
  const std::string name = FreeName(".torn");
  const int handle = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  const bool written = handle >= 0 && WriteAll(handle, torn) && fsync(handle) == 0;
  const std::string reason = written ? "" : Reason();
  if (handle >= 0) close(handle);
  if (!written) Fail("its incomplete last line can't be moved to " + name + ": " + reason);
  Say("moved an incomplete last line of " + std::to_string(torn.size()) + " bytes to " + name);
}

// Whether the path still names the open file, and the file's size.
bool NdjsonFile::HasPath(std::uint64_t* size) const {
  struct stat own {
  }, named{};
  if (fstat(file_.handle, &own) != 0) Fail("can't be examined: " + Reason());
  *size = static_cast<std::uint64_t>(own.st_size);
  return stat(path_.c_str(), &named) == 0 && own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

void NdjsonFile::LookAtFile() {
  std::uint64_t size = 0;
  if (!HasPath(&size)) {
    Adopt(Open());
    Say("was moved or removed; records go into a new file of that name");
    return;
  }
  if (!partial_.empty() && !CutBack()) Fail("its incomplete last line can't be removed: " + Reason());
  if (!HasPath(&size) || size == file_.size) return;
  Say("was changed by another program, from " + std::to_string(file_.size) + " bytes to " +
      std::to_string(size) + "; records are appended");
  file_.size = size;
  char last = '\n';
  if (size != 0 && !ReadAll(file_.handle, size - 1, &last, 1)) Fail("can't be read: " + Reason());
  file_.endsInLine = last != '\n';
}

void NdjsonFile::WriteGroup(std::vector<Member>& group) {
  try {
    std::string lines;
    for (Member& member : group) {
      ReadRecords(member.packet->lines, [&](const SinkRecord& record) {
        if (!record.id.empty() && !ids_.Add(record.id)) {
          ++member.result.repeated;
          return;
        }
        lines.append(record.text).push_back('\n');
        ++member.result.stored;
      });
    }
    if (!lines.empty()) Write(std::move(lines));
  } catch (...) {
    ids_.Withdraw();
    throw;
  }
  ids_.Keep();
}

void NdjsonFile::Write(std::string lines) {
  LookAtFile();
  if (IsTimeToRotate(lines.size())) Rotate();
  if (file_.endsInLine) lines.insert(0, 1, '\n');
  Append(lines);
}

void NdjsonFile::Append(const std::string& lines) {
  std::string failure;
  if (!WriteAll(file_.handle, lines)) {
    failure = "can't be written: " + Reason();
  } else if (fdatasync(file_.handle) != 0) {
    // Nobody knows which bytes are safe, so all of them go.
    failure = "can't be synced: " + Reason();
  }
  if (failure.empty()) {
    file_.size += lines.size();
    file_.endsInLine = false;
    return;
  }
  partial_ = lines;
  CutBack();
  Fail(failure);
}

// Takes away what of `partial_` is at the end of the file, unless another program has changed the file since.
bool NdjsonFile::CutBack() {
  struct stat status {};
  if (fstat(file_.handle, &status) != 0) return false;
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size > file_.size && size - file_.size <= partial_.size()) {
    std::string tail(static_cast<std::size_t>(size - file_.size), '\0');
    if (!ReadAll(file_.handle, file_.size, tail.data(), tail.size())) return false;
    if (partial_.starts_with(tail) && ftruncate(file_.handle, static_cast<off_t>(file_.size)) != 0)
      return false;
  }
  partial_.clear();
  return true;
}

void NdjsonFile::Recall() {
  constexpr std::uint64_t bytesForEach = 1024;
  constexpr std::uint64_t blockBytes = std::uint64_t{1} << 20;
  std::string lines;  // read and not looked at yet
  for (std::uint64_t begin = file_.size - std::min(file_.size, bytesForEach * ids_.Limit());
       begin < file_.size;) {
    const auto length = static_cast<std::size_t>(std::min(file_.size - begin, blockBytes));
    const std::size_t rest = lines.size();
    lines.resize(rest + length);
    if (!ReadAll(file_.handle, begin, lines.data() + rest, length)) Fail("can't be read: " + Reason());
    begin += length;
    // What isn't a whole line has no id that can be read; so neither has a first one that was cut.
    const std::size_t whole = lines.rfind('\n') + 1;
    ReadRecords(std::string_view(lines).substr(0, whole), [this](const SinkRecord& record) {
      if (!record.id.empty() && ids_.Add(record.id)) ids_.Keep();
    });
    lines.erase(0, whole);
  }
}

bool NdjsonFile::IsTimeToRotate(std::size_t bytes) const {
  if (file_.size == 0) return false;
  if (options_.rotateBytes != 0 && file_.size + bytes > options_.rotateBytes) return true;
  return options_.rotateEvery.count() != 0 && clock_->Now() - opened_ >= options_.rotateEvery;
}

void NdjsonFile::Rotate() {
  // Somebody may have moved it since it was looked at; then that is done.
  if (rename(path_.c_str(), FreeName("").c_str()) != 0 && errno != ENOENT)
    Fail("can't be rotated: " + Reason());
  Adopt(Open());
}

std::string NdjsonFile::FreeName(const char* infix) const {
  const std::time_t now = host::Clock::WallTimePoint::clock::to_time_t(clock_->WallNow());
  std::tm utc{};
  gmtime_r(&now, &utc);
  char moment[32];
  moment[std::strftime(moment, sizeof moment, "%Y%m%dT%H%M%SZ", &utc)] = '\0';
  const std::string base = path_ + infix + "." + moment;
  std::string name = base;
  for (int i = 1; access(name.c_str(), F_OK) == 0; ++i) name = base + "-" + std::to_string(i);
  return name;
}

void NdjsonFile::ReopenFile() {
  std::uint64_t size = 0;
  if (HasPath(&size)) return;
  // Whoever moved the file must not find half a line in it.
  if (!partial_.empty() && !CutBack()) Fail("its incomplete last line can't be removed: " + Reason());
  Adopt(Open());
}

}  // namespace veld_report::server
