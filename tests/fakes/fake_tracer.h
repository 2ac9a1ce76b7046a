// A tracer that keeps the lines, with a switch for each way in which a tracer may say no.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "contract/tracer.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

class FakeTracer final : public FakeObject<zel::ITracer> {
 public:
  explicit FakeTracer(FakeWorld& world) : FakeObject(world, "Tracer") {}

  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override;
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override;

  // "LEVEL text" of each line since the last call.
  std::vector<std::string> TakeLines();
  // How often a level or a growth was asked for, answered or not.
  int Asked(std::uint32_t level) const;
  int OpenBuffers() const;

  std::atomic<std::uint32_t> highestLevel{700};  // lines above it aren't wanted
  std::atomic<zel::ResultCode> refusal{1};       // what an unwanted level answers
  std::atomic<bool> refuseGrowth{false};
  std::atomic<bool> storeNoBuffer{false};  // breaks the contract: yes without a buffer

 private:
  struct Buffer {
    std::uint32_t level;
    std::string bytes;
  };
  mutable std::mutex lock_;
  std::map<char*, std::unique_ptr<Buffer>> buffers_;
  std::map<std::uint32_t, int> asked_;
  std::vector<std::string> lines_;
};

}  // namespace veld_report::fakes
