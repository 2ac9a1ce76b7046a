#include "tests/host/power_log.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

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
  switch (step.kind) {
    case DiskStep::write:
    case DiskStep::truncate: {
      Content& content = contents_[step.file];
      Apply(step, &content.whole);
      content.since.push_back(step);
      return;
    }
    case DiskStep::sync: {
      Content& content = contents_[step.file];
      content.synced = content.whole;
      content.since.clear();
      return;
    }
    case DiskStep::link:
      contents_.try_emplace(step.file);
      [[fallthrough]];
    case DiskStep::unlink:
      Apply(step, &whole_);
      since_.push_back(step);
      return;
    case DiskStep::syncFolder:
      synced_ = whole_;
      since_.clear();
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
  FaultyVfs::observer = [this](const FaultyVfs::Event& event) { Note(event); };
}

std::size_t PowerLog::Count() const {
  const std::lock_guard lock(mutex_);
  return steps_.size();
}

std::size_t PowerLog::LogEnd() const {
  const std::lock_guard lock(mutex_);
  return logEnd_;
}

bool PowerLog::IsLogSync(const DiskStep& step) const {
  return step.kind == DiskStep::sync && logs_.contains(step.file);
}

void PowerLog::Note(const FaultyVfs::Event& event) {
  using Event = FaultyVfs::Event;
  const std::lock_guard lock(mutex_);
  const std::string name = fs::path(event.name).filename();
  if (event.kind == Event::remove) {
    if (names_.erase(name) != 0) steps_.push_back({DiskStep::unlink, 0, 0, name});
    return;
  }
  if (event.kind == Event::open) {
    open_.erase(event.file);
    if (name.empty()) return;
    const auto [entry, isNew] = names_.try_emplace(name, files_);
    if (isNew) steps_.push_back({DiskStep::link, files_++, 0, name});
    open_[event.file] = {entry->second, IsLog(name) || IsJournal(name)};
    if (IsLog(name)) logs_.insert(entry->second);
    return;
  }
  const auto found = open_.find(event.file);
  if (found == open_.end()) return;
  Open& file = found->second;
  if (event.kind == Event::sync) {
    steps_.push_back({DiskStep::sync, file.file});
    if (std::exchange(file.syncsFolder, false)) steps_.push_back({DiskStep::syncFolder});
  } else {
    const auto kind = event.kind == Event::write ? DiskStep::write : DiskStep::truncate;
    steps_.push_back({kind, file.file, event.offset, std::string(event.bytes)});
    if (kind == DiskStep::write && logs_.contains(file.file)) logEnd_ = steps_.size();
  }
}

DiskImage ReadImage(const fs::path& folder) {
  DiskImage image;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (!IsStoreFile(name)) continue;
    std::ifstream stream(entry.path(), std::ios::binary);
    image[name] = {std::istreambuf_iterator<char>(stream), {}};
  }
  return image;
}

void WriteImage(const DiskImage& image, const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (IsStoreFile(name) || name.ends_with("-shm")) fs::remove(entry.path());
  }
  for (const auto& [name, content] : image) {
    std::ofstream stream(folder / name, std::ios::binary);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!stream.flush()) throw std::runtime_error("can't write " + name + " into " + folder.string());
  }
}

}  // namespace veld_report::tests
