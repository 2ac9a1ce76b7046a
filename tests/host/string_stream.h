// A stream into a string of the test's, which can be told to fail or to be full.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "contract/io.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// Polices its caller: only Write is expected of a storage, anything else answers "Unexpected".
class StringStream final : public HostObject<zel::IIO> {
 public:
  std::string text;
  std::uint64_t roomBytes = UINT64_MAX;   // a write beyond it is cut short
  zel::ResultCode beyondRoom = zel::sOk;  // what the cut write answers
  std::uint32_t writes = 0;

  zel::ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) override {
    ++writes;
    const auto taken = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, roomBytes - text.size()));
    text.append(static_cast<const char*>(buffer), taken);
    *bytesWritten = taken;
    return taken == count ? zel::sOk : beyondRoom;
  }
  zel::ResultCode Read(void*, std::uint32_t, std::uint32_t*) override { return zel::eUnexpected; }
  zel::ResultCode Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode GetPosition(std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode GetSize(std::uint64_t*) override { return zel::eUnexpected; }
  zel::ResultCode SetSize(std::uint64_t) override { return zel::eUnexpected; }
  zel::ResultCode Flush() override { return zel::eUnexpected; }
};

}  // namespace veld_report::host
