// A tracer that keeps its lines.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "contract/tracer.h"
#include "host/base/host_object.h"

namespace veld_report::tests {

class RecordingTracer final : public host::HostObject<zel::ITracer> {
 public:
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    if (level == growLevel) return zel::eNotSupported;
    *buffer = new char[size];
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(buffer, length);
    delete[] buffer;
    return zel::sOk;
  }
  std::vector<std::string> Lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace veld_report::tests
