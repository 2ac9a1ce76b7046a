// ITracer, the host's tracing service. Required when a sender is created.
#pragma once

#include "types/object.h"

namespace zel {

// A line is written into a buffer of the tracer's and handed back in one piece: the module owns none of the
// buffers. Threads: any, also while the sender holds a lock of its own.
class ITracer : public IObject {
 public:
  static constexpr InterfaceId iid = 0x6ef3329b;
  // No level, but the request to grow a buffer.
  static constexpr std::uint32_t growLevel = 1000;

  // With a level: answer 0 and store a writable buffer of at least `size` bytes if a line of this level is
  // wanted; answer anything else and store nothing if not. Levels in use: 300 for failures, 700 for the rest.
  // With level 1000: `*buffer` holds a buffer from this tracer; answer 0 and leave there a buffer of at least
  // `size` bytes with the same content, or answer non-zero and leave a pointer that CommitBuffer still takes.
  virtual ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) = 0;
  // Takes the line, exactly `length` bytes with no terminator and no line end, and the buffer back.
  virtual ResultCode CommitBuffer(char* buffer, std::uint64_t length) = 0;

 protected:
  ~ITracer() = default;
};

}  // namespace zel
