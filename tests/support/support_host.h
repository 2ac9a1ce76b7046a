// What the support library sees of a host: an allocator that counts and can fail, and a tracer that keeps
// lines. Both police their caller: whoever breaks the contract fails the test.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "contract/tracer.h"
#include "gtest/gtest.h"
#include "host/base/host_object.h"
#include "tests/world/heap.h"
#include "types/allocator.h"

namespace veld_report::tests {

using host::MakeObject;

inline std::uint32_t References(zel::IObject& object) {
  object.AddRef();
  return object.Release();
}

class TestAllocator final : public host::HostObject<zel::IAllocator> {
 public:
  void* Allocate(std::uint64_t size) override {
    const world::Outside outside;
    if (failAt > 0 && --failAt == 0) return nullptr;
    void* const memory = std::malloc(size);
    // Nobody may count on fresh memory being zero.
    std::memset(memory, 0xcd, size);
    blocks_[memory] = size;
    return memory;
  }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override {
    const world::Outside outside;
    const auto found = blocks_.find(memory);
    if (found == blocks_.end()) return ADD_FAILURE() << "Free of a block that isn't out", void();
    std::memset(memory, 0xdd, found->second);
    std::free(memory);
    blocks_.erase(found);
  }
  std::uint64_t LiveBlocks() const { return blocks_.size(); }

  int failAt = 0;  // the allocation from here on that gives null; 0: none

 private:
  ~TestAllocator() override { EXPECT_TRUE(blocks_.empty()) << "a block is still out"; }
  std::map<void*, std::uint64_t> blocks_;
};

class TestTracer final : public host::HostObject<zel::ITracer> {
 public:
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    asked_.push_back((level == growLevel ? "grow " : std::to_string(level) + " ") + std::to_string(size));
    std::string head = std::to_string(level) + " ";
    // Exactly as large as asked for, so that a sanitizer sees a write past it.
    std::vector<char> fresh(size, '?');
    if (level == growLevel) {
      const auto found = buffers_.find(*buffer);
      EXPECT_NE(found, buffers_.end()) << "growth of a buffer that isn't out";
      if (refuseGrowth || found == buffers_.end()) return zel::eOutOfMemory;
      head = found->second.first;
      std::copy(found->second.second.begin(), found->second.second.end(), fresh.begin());
      buffers_.erase(found);
    } else if (level > highestLevel) {
      return refusal;
    }
    *buffer = fresh.data();
    buffers_[*buffer] = {std::move(head), std::move(fresh)};
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    const auto found = buffers_.find(buffer);
    if (found == buffers_.end() || length > found->second.second.size()) {
      ADD_FAILURE() << "a buffer that isn't out, or a line longer than its buffer";
      return zel::eUnexpected;
    }
    lines_.push_back(found->second.first.append(buffer, length));
    buffers_.erase(found);
    return zel::eUnexpected;  // nobody may look at it
  }

  // "LEVEL text" of each line since the last call.
  std::vector<std::string> TakeLines() { return std::exchange(lines_, {}); }
  // "LEVEL SIZE" or "grow SIZE" of what was asked for since the last call, answered or not.
  std::vector<std::string> TakeAsked() { return std::exchange(asked_, {}); }

  std::uint32_t highestLevel = 700;  // lines above it aren't wanted
  zel::ResultCode refusal = 1;       // answers an unwanted level; 0, and no buffer, breaks the contract
  bool refuseGrowth = false;

 private:
  ~TestTracer() override { EXPECT_TRUE(buffers_.empty()) << "a buffer is still out"; }
  std::map<char*, std::pair<std::string, std::vector<char>>> buffers_;
  std::vector<std::string> lines_, asked_;
};

}  // namespace veld_report::tests
