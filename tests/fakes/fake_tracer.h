// A tracer that keeps the lines, and may be told to say no in each of the ways there are.
#pragma once

#include <algorithm>
#include <atomic>
#include <map>
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
    if (const auto code = world().script.Enter("AcquireBuffer")) return code;
    const std::lock_guard guard(lock_);
    asked_.push_back((level == growLevel ? "grow" : std::to_string(level)) + " " + std::to_string(size));
    std::string line = std::to_string(level) + " ";
    // Exactly as large as asked for, so that a sanitizer sees a write behind it.
    std::vector<char> fresh(size, '?');
    if (level == growLevel) {
      const auto found = buffers_.find(*buffer);
      if (found == buffers_.end()) Fault("Tracer: growth of a buffer that isn't out");
      if (refuseGrowth) return zel::eOutOfMemory;
      line = found->second.first;
      std::copy(found->second.second.begin(), found->second.second.end(), fresh.begin());
      buffers_.erase(found);
    } else {
      if (level != 300 && level != 700) Fault("Tracer: level " + std::to_string(level));
      if (level > highestLevel) return refusal;
    }
    *buffer = fresh.data();
    buffers_[*buffer] = {std::move(line), std::move(fresh)};
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    Use();
    Take(buffer, length);
    static_cast<void>(world().script.Enter("CommitBuffer"));
    return zel::eUnexpected;  // nobody may look at it
  }

  // "LEVEL text" of each line since the last call.
  std::vector<std::string> TakeLines() {
    const std::lock_guard guard(lock_);
    return std::exchange(lines_, {});
  }
  // "LEVEL SIZE" or "grow SIZE" of what was asked for since the last call, answered or not.
  std::vector<std::string> TakeAsked() {
    const std::lock_guard guard(lock_);
    return std::exchange(asked_, {});
  }
  std::size_t OpenBuffers() const {
    const std::lock_guard guard(lock_);
    return buffers_.size();
  }

  std::atomic<std::uint32_t> highestLevel{700};  // lines above it aren't wanted
  std::atomic<zel::ResultCode> refusal{
      1};  // answers an unwanted level; 0, and no buffer, breaks the contract
  std::atomic<bool> refuseGrowth{false};

 private:
  void Take(char* buffer, std::uint64_t length) {
    const std::lock_guard guard(lock_);
    const auto found = buffers_.find(buffer);
    if (found == buffers_.end() || length > found->second.second.size()) {
      return Fault("Tracer: a buffer that isn't out, or a line longer than its buffer");
    }
    lines_.push_back(found->second.first.append(buffer, length));
    buffers_.erase(found);
  }

  mutable std::mutex lock_;
  // The line's level and the memory, by its address.
  std::map<char*, std::pair<std::string, std::vector<char>>> buffers_;
  std::vector<std::string> asked_;
  std::vector<std::string> lines_;
};

}  // namespace veld_report::fakes
