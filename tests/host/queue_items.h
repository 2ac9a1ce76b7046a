// Short forms of the operations on queues, for tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "contract/queue.h"

namespace veld_report::tests {

struct ReadItem {
  std::string bytes;
  std::uint64_t token = 0;
};

inline zel::ResultCode PushText(orvel::IQueueProducer& producer, std::string_view text) {
  const auto* first = reinterpret_cast<const std::uint8_t*>(text.data());
  const zel::ByteRange bytes{first, first + text.size()};
  return producer.Push(&bytes);
}

inline std::optional<ReadItem> ReadOne(orvel::IAckConsumer& reader) {
  zel::vector_t<std::uint8_t> data;
  ReadItem item;
  if (reader.Read(&data, &item.token) != zel::sOk) return std::nullopt;
  item.bytes.assign(data.first, data.last);
  return item;
}

// Bounded, so that a reader that hands items out again ends the test.
inline std::vector<ReadItem> ReadAll(orvel::IAckConsumer& reader, std::size_t most = 10'000) {
  std::vector<ReadItem> items;
  while (items.size() < most) {
    auto item = ReadOne(reader);
    if (!item) break;
    items.push_back(std::move(*item));
  }
  return items;
}

inline std::vector<std::string> Texts(const std::vector<ReadItem>& items) {
  std::vector<std::string> texts;
  for (const ReadItem& item : items) texts.push_back(item.bytes);
  return texts;
}

inline std::string Numbered(std::size_t number) { return "item " + std::to_string(number); }

}  // namespace veld_report::tests
