#include "tests/host/power_log.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "tests/common/files.h"

namespace veld_report::tests {
namespace {

namespace fs = std::filesystem;

bool IsLog(std::string_view name) { return name.ends_with("-wal"); }
bool IsJournal(std::string_view name) { return name.ends_with("-journal"); }
bool IsStoreFile(std::string_view name) { return name.ends_with(".queue") || IsLog(name) || IsJournal(name); }

bool Chance(double likelihood, Disk::Random& random) {
  return std::uniform_real_distribution<>()(random) < likelihood;
}

void Put(std::string_view bytes, std::size_t offset, std::string* content) {
  if (content->size() < offset + bytes.size()) content->resize(offset + bytes.size());
  content->replace(offset, bytes.size(), bytes);
}

}  // namespace

Disk::Disk(const DiskImage& synced) {
  for (const auto& [name, bytes] : synced) {
    synced_[name] = contents_.size();
    contents_[contents_.size()] = {bytes, bytes, {}};
  }
  whole_ = synced_;
}

void Disk::Do(const DiskStep& step) {
  Content& content = contents_[step.file];
  if (step.kind == DiskStep::syncFolder) {
    synced_ = whole_;
    since_.clear();
  } else if (step.kind == DiskStep::link || step.kind == DiskStep::unlink) {
    Apply(step, &whole_);
    since_.push_back(step);
  } else if (step.kind == DiskStep::sync) {
    content.synced = content.whole;
    content.since.clear();
  } else {
    Apply(step, &content.whole);
    content.since.push_back(step);
  }
}

void Disk::Apply(const DiskStep& step, std::string* content) {
  const auto offset = static_cast<std::size_t>(step.offset);
  if (step.kind == DiskStep::truncate) {
    content->resize(offset);
  } else {
    Put(step.text, offset, content);
  }
}

void Disk::Apply(const DiskStep& step, Names* names) {
  if (step.kind == DiskStep::unlink) {
    names->erase(step.text);
  } else {
    (*names)[step.text] = step.file;
  }
}

// Some sectors have been written: the first ones, the last ones, or any.
void Disk::ApplyTorn(const DiskStep& write, std::string* content, Random& random) {
  const std::size_t sector = Chance(0.5, random) ? 512 : 4096;
  const int kind = std::uniform_int_distribution<>(0, 2)(random);
  const double share = std::uniform_real_distribution<>()(random);
  const auto begin = static_cast<std::size_t>(write.offset);
  const std::size_t end = begin + write.text.size();
  for (std::size_t at = begin; at < end;) {
    const std::size_t next = std::min(end, (at / sector + 1) * sector);
    const double place = static_cast<double>(at - begin) / static_cast<double>(end - begin);
    const bool written = kind == 0 ? place < share : kind == 1 ? place > share : Chance(share, random);
    if (written) Put(std::string_view(write.text).substr(at - begin, next - at), at, content);
    at = next;
  }
}

DiskImage Disk::Whole(const DiskStep* last, Random& random) const {
  DiskImage image;
  for (const auto& [name, file] : whole_) {
    std::string& content = image[name] = contents_.at(file).whole;
    if (last && last->kind == DiskStep::write && last->file == file) ApplyTorn(*last, &content, random);
  }
  return image;
}

DiskImage Disk::Reordered(Random& random) const {
  Names names = synced_;
  const std::size_t entries = std::uniform_int_distribution<std::size_t>(0, since_.size())(random);
  for (std::size_t i = 0; i < entries; ++i) Apply(since_[i], &names);
  DiskImage image;
  for (const auto& [name, file] : names) {
    const Content& from = contents_.at(file);
    std::string& content = image[name] = from.synced;
    constexpr double shares[] = {0, 0.2, 0.5, 0.8, 0.98, 1};
    const double share = shares[std::uniform_int_distribution<>(0, 5)(random)];
    for (const DiskStep& step : from.since) {
      if (Chance(share, random)) {
        Apply(step, &content);
      } else if (step.kind == DiskStep::write && Chance(0.1, random)) {
        ApplyTorn(step, &content, random);
      }
    }
  }
  return image;
}

PowerLog::PowerLog(const fs::path& folder) : start_(ReadImage(folder)) {
  for (const auto& [name, content] : start_) names_[name] = files_++;
  FaultyVfs::observer = std::bind_front(&PowerLog::Note, this);
}

PowerLog::Position PowerLog::Now() const {
  const std::lock_guard lock(mutex_);
  return {steps_.size(), logEnd_};
}

bool PowerLog::IsLogSync(const DiskStep& step) const {
  return step.kind == DiskStep::sync && logs_.contains(step.file);
}

void PowerLog::Note(FaultyVfs::Event event, const sqlite3_file* file, std::int64_t offset,
                    std::string_view text) {
  using enum FaultyVfs::Event;
  const std::lock_guard lock(mutex_);
  const std::string name = fs::path(text).filename().string();
  if (event == remove) {
    if (names_.erase(name) != 0) steps_.push_back({DiskStep::unlink, 0, 0, name});
  } else if (event == open) {
    open_.erase(file);
    if (name.empty()) return;
    const auto [entry, isNew] = names_.try_emplace(name, files_);
    if (isNew) steps_.push_back({DiskStep::link, files_++, 0, name});
    open_[file] = {entry->second, IsLog(name) || IsJournal(name)};
    if (IsLog(name)) logs_.insert(entry->second);
  } else if (const auto found = open_.find(file); found != open_.end()) {
    auto& [number, syncsFolder] = found->second;
    const auto kind = event == sync ? DiskStep::sync : event == write ? DiskStep::write : DiskStep::truncate;
    steps_.push_back({kind, number, offset, std::string(text)});
    if (event == write && logs_.contains(number)) logEnd_ = steps_.size();
    if (event == sync && std::exchange(syncsFolder, false)) steps_.push_back({DiskStep::syncFolder});
  }
}

DiskImage ReadImage(const fs::path& folder) {
  DiskImage image;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (IsStoreFile(name)) image[name] = ReadFile(entry.path());
  }
  return image;
}

void WriteImage(const DiskImage& image, const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (IsStoreFile(name) || name.ends_with("-shm")) fs::remove(entry.path());
  }
  for (const auto& [name, content] : image) WriteFile(folder / name, content);
}

}  // namespace veld_report::tests
