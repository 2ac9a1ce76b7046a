// The reader of the simulated queue service. What it hands out is judged where it goes: into a request, and
// back with Ack or ReturnItem.
#pragma once

#include <vector>

#include "contract/queue.h"
#include "tests/world/host.h"

namespace veld_report::world {

class Reader final : public Fake<orvel::IAckConsumer> {
 public:
  Reader(Host& owner, int queueName) : Fake(owner), name(queueName), id(++owner.readers) {}
  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override;
  zel::ResultCode Ack(const std::uint64_t* token) override { return Settle(Op::ack, *token); }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override { return Settle(Op::returnItem, *token); }

  const int name;
  const std::uint32_t id;
  std::vector<std::uint64_t> unsent;  // handed out, and in no request yet

 private:
  void OnEnd() override;
  zel::ResultCode Settle(Op op, std::uint64_t token);
  // Counts the item as delivered or evicted, or fails.
  void JudgeAck(StoredQueue& queue, std::uint64_t token);

  std::uint64_t position_ = 0;
  bool ended_ = false;
  bool settleFailed_ = false;  // an Ack or ReturnItem failed, or was to fail
};

}  // namespace veld_report::world
