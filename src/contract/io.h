// zel::IIO, a stream of bytes. The module implements it (memory streams). The host's JSON storage writes to
// one, and its HTTP client reads the body of a request from one.
#pragma once

#include "types/object.h"

namespace zel {

// Threads: one at a time, except AddRef and Release, which any thread may call.
class IIO : public IObject {
 public:
  static constexpr InterfaceId iid = 10;

  // Reads up to `count` bytes. `*bytesRead` (not null) receives how many; 0 with result 0 at or past the end.
  virtual ResultCode Read(void* buffer, std::uint32_t count, std::uint32_t* bytesRead) = 0;
  // Overwrites and extends. Writes all or nothing, unless the stream has a fixed size. `bytesWritten` isn't
  // null.
  virtual ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) = 0;
  // Origin 0 is the start, 1 the position, 2 the size; any other counts as 0. A negative target becomes 0; a
  // target past the end is allowed. `newPosition` may be null.
  virtual ResultCode Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* newPosition) = 0;
  virtual ResultCode GetPosition(std::uint64_t* out) = 0;
  virtual ResultCode GetSize(std::uint64_t* out) = 0;
  // New bytes are zero. The position doesn't change.
  virtual ResultCode SetSize(std::uint64_t size) = 0;
  virtual ResultCode Flush() = 0;

 protected:
  ~IIO() = default;
};

}  // namespace zel
