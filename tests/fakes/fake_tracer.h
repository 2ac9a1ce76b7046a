// A tracer that keeps the lines, with a switch for each way in which a tracer may say no.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "contract/tracer.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

class FakeTracer final : public FakeObject<zel::ITracer> {
 public:
  explicit FakeTracer(FakeWorld& world) : FakeObject(world, "Tracer") {}

  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    Use();
    const std::lock_guard guard(lock_);
    ++asked_[level];
    if (level == growLevel) return Grow(buffer, size);
    if (level != 300 && level != 700) Fault("Tracer: level " + std::to_string(level));
    if (size != 512) Fault("Tracer: a line begins with " + std::to_string(size) + " bytes");
    if (level > highestLevel) return refusal;
    if (storeNoBuffer) return zel::sOk;
    auto fresh = std::make_unique<Buffer>(Buffer{level, std::string(size, '?')});
    *buffer = fresh->bytes.data();
    buffers_[*buffer] = std::move(fresh);
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    Use();
    const std::lock_guard guard(lock_);
    const auto found = buffers_.find(buffer);
    if (found == buffers_.end() || length > found->second->bytes.size()) {
      Fault("Tracer: a buffer that isn't out, or a line longer than its buffer");
      return zel::eInvalidArgument;
    }
    lines_.push_back(std::to_string(found->second->level) + " " + found->second->bytes.substr(0, length));
    buffers_.erase(found);
    return zel::eUnexpected;  // nobody may look at it
  }

  // "LEVEL text" of each line since the last call.
  std::vector<std::string> TakeLines() {
    const std::lock_guard guard(lock_);
    return std::exchange(lines_, {});
  }
  // How often a level or a growth was asked for, answered or not.
  int Asked(std::uint32_t level) const {
    const std::lock_guard guard(lock_);
    const auto found = asked_.find(level);
    return found == asked_.end() ? 0 : found->second;
  }
  int OpenBuffers() const {
    const std::lock_guard guard(lock_);
    return static_cast<int>(buffers_.size());
  }

  std::atomic<std::uint32_t> highestLevel{700};  // lines above it aren't wanted
  std::atomic<zel::ResultCode> refusal{1};       // what an unwanted level answers
  std::atomic<bool> refuseGrowth{false};
  std::atomic<bool> storeNoBuffer{false};  // breaks the contract: yes without a buffer

 private:
  struct Buffer {
    std::uint32_t level;
    std::string bytes;
  };
  zel::ResultCode Grow(char** buffer, std::uint64_t size) {
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

  mutable std::mutex lock_;
  std::map<char*, std::unique_ptr<Buffer>> buffers_;
  std::map<std::uint32_t, int> asked_;
  std::vector<std::string> lines_;
};

}  // namespace veld_report::fakes
