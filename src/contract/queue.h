// The host's persistent queues. Required in Construct.
//
// A queue is identified by a domain, always "veld_rep", and a name of 32 hexadecimal characters that the
// sender derives from a url. Queues outlive the sender and the process. The vectors that the module passes
// have no allocator: the host allocates their content on the process heap, and the module frees it.
#pragma once

#include "contract/byte_range.h"
#include "types/basic_string.h"
#include "types/object.h"
#include "types/vector.h"

namespace orvel {

// A reader of one queue. It only moves forward: an object never returns the same item twice, even if the item
// was given back. Otherwise a sender whose server refuses would read for ever. Threads: Read on one thread at
// a time; Ack and ReturnItem on any thread, even during a Read.
class IAckConsumer : public zel::IObject {
 public:
  // Returns the oldest item that wasn't read yet: replaces the content of `data`, sets `token` and returns 0.
  // Any other result means that there was no item.
  virtual zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) = 0;
  // Removes the item from the queue for good. The result is ignored.
  virtual zel::ResultCode Ack(const std::uint64_t* token) = 0;
  // Gives the item back: it stays for a later reader. The result is ignored.
  virtual zel::ResultCode ReturnItem(const std::uint64_t* token) = 0;

 protected:
  ~IAckConsumer() = default;
};

// A writer of one queue with a fixed size limit. Threads: any.
class IQueueProducer : public zel::IObject {
 public:
  // Appends a copy of the bytes as a new item. Must return 0x80000062 "Out of space" if and only if the queue
  // is at its limit and nothing was stored; the sender then drops the oldest items and tries again.
  virtual zel::ResultCode Push(const zel::ByteRange* data) = 0;

 protected:
  ~IQueueProducer() = default;
};

// Manages all queues of a domain. Threads: any.
class IQueueManager : public zel::IObject {
 public:
  // Removes the queue and its items. There may still be producers and consumers of it.
  virtual zel::ResultCode RemoveQueue(const zel::string& queueName) = 0;
  // Fills the empty vector with the names of all queues of the domain, in any order.
  virtual zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) = 0;

 protected:
  ~IQueueManager() = default;
};

// Threads: any. CreateProducer is called while the sender holds its lock of the queues.
class IQueueFactory : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x03ed713c;
  virtual zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                            IAckConsumer** out) = 0;
  // Creates the queue if it doesn't exist. The limit is the producer's, not the queue's.
  virtual zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                         std::uint32_t sizeLimitBytes, IQueueProducer** out) = 0;
  virtual zel::ResultCode CreateQueueManager(const zel::string& domain, IQueueManager** out) = 0;

 protected:
  ~IQueueFactory() = default;
};

}  // namespace orvel
