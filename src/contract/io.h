// zel::IIO, a stream of bytes. The module implements it (memory streams); the host's JSON storage writes into
// one, and its HTTP client reads the body of a request from one.
#pragma once

#include "types/object.h"

namespace zel {

// Threads: a stream belongs to one thread at a time; AddRef and Release may come from any.
class IIO : public IObject {
 public:
  static constexpr InterfaceId iid = 10;

  // Reads at most `count` bytes. `*bytesRead`, not null, gets their number; 0 at or past the end, with result
  // 0.
  virtual ResultCode Read(void* buffer, std::uint32_t count, std::uint32_t* bytesRead) = 0;
  // Overwrites and extends. Writes all or nothing, unless the stream is of a fixed size. `bytesWritten` not
  // null.
  virtual ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) = 0;
  // Origin 0: the start, 1: the position, 2: the size; any other counts as 0. A target below zero becomes 0,
  // one past the end is allowed. `newPosition` may be null.
  virtual ResultCode Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* newPosition) = 0;
  virtual ResultCode GetPosition(std::uint64_t* out) = 0;
  virtual ResultCode GetSize(std::uint64_t* out) = 0;
  // New bytes are zero. The position stays.
  virtual ResultCode SetSize(std::uint64_t size) = 0;
  virtual ResultCode Flush() = 0;

 protected:
  ~IIO() = default;
};

}  // namespace zel
