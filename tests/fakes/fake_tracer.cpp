#include "tests/fakes/fake_tracer.h"

namespace veld_report::fakes {

zel::ResultCode FakeTracer::AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) {
  Use();
  std::lock_guard guard(lock_);
  ++asked_[level];
  if (level == growLevel) {
    const auto found = buffers_.find(*buffer);
    if (found == buffers_.end()) {
      Fault("Tracer: growth of a buffer that isn't out");
      return zel::eInvalidArgument;
    }
    if (refuseGrowth) return zel::eOutOfMemory;
    auto grown = std::make_unique<Buffer>(*found->second);
    grown->bytes.resize(size);
    buffers_.erase(found);
    *buffer = grown->bytes.data();
    buffers_[*buffer] = std::move(grown);
    return zel::sOk;
  }
  if (level != 300 && level != 700) Fault("Tracer: level " + std::to_string(level));
  if (level > highestLevel) return refusal;
  if (storeNoBuffer) return zel::sOk;
  auto fresh = std::make_unique<Buffer>(Buffer{level, std::string(size, '?')});
  *buffer = fresh->bytes.data();
  buffers_[*buffer] = std::move(fresh);
  return zel::sOk;
}

zel::ResultCode FakeTracer::CommitBuffer(char* buffer, std::uint64_t length) {
  Use();
  std::lock_guard guard(lock_);
  const auto found = buffers_.find(buffer);
  if (found == buffers_.end()) {
    Fault("Tracer: commit of a buffer that isn't out");
    return zel::eInvalidArgument;
  }
  const Buffer& line = *found->second;
  if (length > line.bytes.size()) {
    Fault("Tracer: a line longer than its buffer");
  } else {
    lines_.push_back(std::to_string(line.level) + " " + line.bytes.substr(0, length));
  }
  buffers_.erase(found);
  return zel::eUnexpected;  // nobody may look at it
}

std::vector<std::string> FakeTracer::TakeLines() {
  std::lock_guard guard(lock_);
  return std::exchange(lines_, {});
}

int FakeTracer::Asked(std::uint32_t level) const {
  std::lock_guard guard(lock_);
  const auto found = asked_.find(level);
  return found == asked_.end() ? 0 : found->second;
}

int FakeTracer::OpenBuffers() const {
  std::lock_guard guard(lock_);
  return static_cast<int>(buffers_.size());
}

}  // namespace veld_report::fakes
