// Small host services for the tests of the support library. Each counts its references and fails the test if
// one is out when it goes.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "contract/service_locator.h"
#include "contract/tracer.h"
#include "gtest/gtest.h"
#include "types/allocator.h"

namespace veld_report::test {

// An object that lives on the test's stack. `references` counts what others hold.
template <class I>
class StackObject : public I {
 public:
  StackObject() = default;
  StackObject(const StackObject&) = delete;
  StackObject& operator=(const StackObject&) = delete;
  ~StackObject() { EXPECT_EQ(references, 0u) << "references are out"; }

  std::uint32_t AddRef() override { return ++references; }
  std::uint32_t Release() override {
    EXPECT_GT(references, 0u) << "a release too many";
    return --references;
  }
  zel::ResultCode QueryInterface(zel::InterfaceId, void** out) override {
    *out = nullptr;
    return zel::eInterfaceNotSupported;
  }

  std::uint32_t references = 0;
};

// Memory from the program's heap, so that it fails when that does. Refuses what it didn't give.
class CountingAllocator final : public StackObject<zel::IAllocator> {
 public:
  ~CountingAllocator() { EXPECT_EQ(blocks, 0) << "blocks are out"; }
  void* Allocate(std::uint64_t size) override {
    auto* header = static_cast<Header*>(std::malloc(size + sizeof(Header)));
    if (!header) return nullptr;
    *header = {this, size};
    ++blocks;
    bytes += size;
    return header + 1;
  }
  zel::ResultCode ReservedAllocatorOperation() override {
    ADD_FAILURE() << "never called";
    return zel::eNotImplemented;
  }
  void Free(void* memory) override {
    Header* header = static_cast<Header*>(memory) - 1;
    ASSERT_EQ(header->owner, this) << "not a block of this allocator";
    --blocks;
    bytes -= header->size;
    std::free(header);
  }

  int blocks = 0;
  std::uint64_t bytes = 0;

 private:
  struct alignas(16) Header {
    CountingAllocator* owner;
    std::uint64_t size;
  };
};

// One allocator that gives nothing.
class DryAllocator final : public StackObject<zel::IAllocator> {
 public:
  void* Allocate(std::uint64_t) override { return nullptr; }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void*) override { ADD_FAILURE() << "nothing was given"; }
};

// Records the lines and the requests for growth. A buffer has exactly the size that was asked for, so that
// the sanitizer sees a write behind it.
class RecordingTracer final : public StackObject<zel::ITracer> {
 public:
  ~RecordingTracer() { EXPECT_EQ(open, nullptr) << "a line was never committed"; }
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    if (level == growLevel) {
      EXPECT_EQ(*buffer, open);
      growths.push_back(size);
      if (refusals > 0) {
        --refusals;
        return zel::eOutOfMemory;
      }
      storage.resize(size);
      storage.shrink_to_fit();
      *buffer = open = storage.data();
      return zel::sOk;
    }
    ++requests;
    // A pointer that comes with a no is nobody's business.
    if (answer != zel::sOk) *buffer = reinterpret_cast<char*>(this);
    if (answer != zel::sOk || giveNoBuffer) return answer;
    EXPECT_EQ(open, nullptr);
    levels.push_back(level);
    storage.assign(size, '#');
    *buffer = open = storage.data();
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    EXPECT_EQ(buffer, open);
    EXPECT_LE(length, storage.size());
    lines.emplace_back(buffer, length);
    open = nullptr;
    return zel::eUnexpected;  // ignored
  }

  zel::ResultCode answer = zel::sOk;
  bool giveNoBuffer = false;
  int refusals = 0;  // how many requests for growth are refused
  int requests = 0;
  std::vector<std::uint32_t> levels;
  std::vector<std::uint64_t> growths;
  std::vector<std::string> lines;

 private:
  char* open = nullptr;
  std::vector<char> storage;
};

// Gives out the services that were put in. `log`, if set, gets a line for each look-up.
class FakeLocator final : public StackObject<zel::IServiceLocator> {
 public:
  template <class I>
  void Put(I* service) {
    services[I::iid] = {service, service};
  }
  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t reserved, void** out) override {
    EXPECT_EQ(reserved, 0u);
    if (log) log->push_back("get " + std::to_string(interfaceId));
    const auto found = services.find(interfaceId);
    if (found == services.end()) return missing;
    found->second.object->AddRef();
    *out = found->second.interfacePointer;
    return zel::sOk;
  }

  static constexpr zel::ResultCode missing = zel::MakeResultCode(0x80000999);
  std::vector<std::string>* log = nullptr;

 private:
  struct Service {
    zel::IObject* object;
    void* interfacePointer;
  };
  std::map<zel::InterfaceId, Service> services;
};

}  // namespace veld_report::test
