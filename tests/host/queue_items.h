// Short forms of the operations on queues, for tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "contract/queue.h"
#include "types/ref.h"

namespace veld_report::tests {

using Strings = std::vector<std::string>;

struct ReadItem {
  std::string bytes;
  std::uint64_t token = 0;
};

inline zel::ResultCode PushText(orvel::IQueueProducer& producer, std::string_view text) {
  const auto* first = reinterpret_cast<const std::uint8_t*>(text.data());
  const zel::ByteRange bytes{first, first + text.size()};
  return producer.Push(&bytes);
}

inline std::optional<ReadItem> ReadOne(orvel::IAckConsumer& reader, zel::vector_t<std::uint8_t>&& data = {}) {
  ReadItem item;
  if (reader.Read(&data, &item.token) != zel::sOk) return std::nullopt;
  item.bytes.assign(data.first, data.last);
  return item;
}

// Bounded, so that a reader that hands items out again ends the test.
inline std::vector<ReadItem> ReadAll(orvel::IAckConsumer& reader, std::size_t most = 100'000) {
  zel::vector_t<std::uint8_t> data;  // one for all, as the module has it
  std::vector<ReadItem> items;
  while (items.size() < most) {
    auto item = ReadOne(reader, std::move(data));
    if (!item) break;
    items.push_back(std::move(*item));
  }
  return items;
}

inline std::string Numbered(std::size_t number) { return "item " + std::to_string(number); }

// What a test does with the queues of one factory.
class QueueOperations {
 public:
  virtual ~QueueOperations() = default;

 protected:
  static constexpr std::uint32_t roomy = 1 << 28;
  static constexpr char usualDomain[] = "veld_rep";

  virtual orvel::IQueueFactory& Factory() = 0;

  zel::Ref<orvel::IQueueProducer> Producer(const std::string& queue, std::uint32_t limit = roomy) {
    zel::Ref<orvel::IQueueProducer> made;
    EXPECT_EQ(Factory().CreateProducer(zel::string(domain), zel::string(queue), limit, made.Out()), zel::sOk);
    return made;
  }
  zel::Ref<orvel::IAckConsumer> Reader(const std::string& queue) {
    zel::Ref<orvel::IAckConsumer> made;
    EXPECT_EQ(Factory().CreateAckConsumer(zel::string(domain), zel::string(queue), made.Out()), zel::sOk);
    return made;
  }
  zel::Ref<orvel::IQueueManager> Manager() {
    zel::Ref<orvel::IQueueManager> made;
    EXPECT_EQ(Factory().CreateQueueManager(zel::string(domain), made.Out()), zel::sOk);
    return made;
  }

  template <class... Texts>
  void Push(const std::string& queue, const Texts&... texts) {
    const auto producer = Producer(queue);
    for (const std::string_view text : {std::string_view(texts)...})
      EXPECT_EQ(PushText(*producer, text), zel::sOk);
  }
  // What a fresh reader finds; its claims end with it.
  Strings Waiting(const std::string& queue) {
    Strings texts;
    for (const ReadItem& item : ReadAll(*Reader(queue))) texts.push_back(item.bytes);
    return texts;
  }
  // As the module puts an item into a queue that may be full.
  zel::ResultCode EvictAndPush(orvel::IQueueProducer& producer, const std::string& queue,
                               std::string_view text, Strings* evicted = nullptr) {
    zel::ResultCode code = PushText(producer, text);
    if (code != zel::eOutOfSpace) return code;
    const auto reader = Reader(queue);
    while (code == zel::eOutOfSpace) {
      const auto oldest = ReadOne(*reader);
      if (!oldest) break;
      reader->Ack(&oldest->token);
      if (evicted) evicted->push_back(oldest->bytes);
      code = PushText(producer, text);
    }
    return code;
  }

  std::string domain = usualDomain;
};

}  // namespace veld_report::tests
