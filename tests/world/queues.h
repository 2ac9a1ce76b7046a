// The simulated queue service.
#pragma once

#include <vector>

#include "contract/queue.h"
#include "tests/world/host.h"

namespace veld_report::world {

class Producer final : public Fake<orvel::IQueueProducer> {
 public:
  Producer(Host& owner, int name, std::uint32_t limit)
      : Fake(owner), name_(name), id_(++owner.producers), limit_(limit) {}
  zel::ResultCode Push(const zel::ByteRange* data) override;
  std::uint32_t Id() const { return id_; }

 private:
  const int name_;
  const std::uint32_t id_;
  const std::uint32_t limit_;
};

class Reader final : public Fake<orvel::IAckConsumer> {
 public:
  Reader(Host& owner, int queueName) : Fake(owner), name(queueName), id(++owner.readers) {}
  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override;
  zel::ResultCode Ack(const std::uint64_t* token) override;
  zel::ResultCode ReturnItem(const std::uint64_t* token) override;

  const int name;
  const std::uint32_t id;
  std::vector<std::uint64_t> unsent;  // handed out, and in no request yet

 private:
  void OnEnd() override;
  // Counts the item as delivered or evicted, or fails.
  void JudgeAck(StoredQueue& queue, std::uint64_t token);

  std::uint64_t position_ = 0;
  bool ended_ = false;
  bool settleFailed_ = false;  // an Ack or ReturnItem failed, or was to fail
};

class Manager final : public Fake<orvel::IQueueManager> {
 public:
  using Fake::Fake;
  zel::ResultCode RemoveQueue(const zel::string& queueName) override;
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override;
};

class QueueFactory final : public Fake<orvel::IQueueFactory> {
 public:
  explicit QueueFactory(Host& owner) : Fake(owner), manager_(owner) {}
  zel::ResultCode CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                    orvel::IAckConsumer** out) override;
  zel::ResultCode CreateProducer(const zel::string& domain, const zel::string& queueName,
                                 std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) override;
  zel::ResultCode CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) override;
  std::uint32_t ManagerReferences() const { return manager_.references; }

 private:
  int Place(const zel::string& domain, const zel::string& queueName) const;
  Manager manager_;
};

}  // namespace veld_report::world
