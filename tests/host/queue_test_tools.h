// What the tests of the store share: a store in a folder of its own, and short forms of its operations.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/queue/queue_service.h"
#include "tests/host/queue_items.h"
#include "tests/host/temporary_folder.h"

namespace veld_report::host {

inline void PrintTo(const ItemCount& count, std::ostream* out) {
  *out << count.items << " (" << count.bytes << " bytes)";
}
inline void PrintTo(const QueueLedger& ledger, std::ostream* out) {
  for (const ItemCount* figure : ledger.All()) {
    PrintTo(*figure, out);
    *out << ' ';
  }
}

}  // namespace veld_report::host

namespace veld_report::tests {

// Polls, for what a thread of the service brings about by itself.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

class StoreTest : public testing::Test {
 protected:
  // Ends the service, if there is one, before it opens the next. Producers and readers must be gone.
  void Open() {
    service.Reset();
    service = host::QueueService::Open(options);
  }
  std::string OpenError() {
    try {
      host::QueueService::Open(options);
    } catch (const host::StoreError& error) {
      return error.what();
    }
    return "";
  }
  std::filesystem::path StorePath() const { return host::StoreFilePath(options.folder, "veld_rep"); }

  zel::Ref<orvel::IQueueProducer> Producer(const char* queue, std::uint32_t limit = 1 << 28) {
    zel::Ref<orvel::IQueueProducer> producer;
    EXPECT_EQ(service->CreateProducer(zel::string("veld_rep"), zel::string(queue), limit, producer.Out()),
              zel::sOk);
    return producer;
  }
  zel::Ref<orvel::IAckConsumer> Reader(const char* queue) {
    zel::Ref<orvel::IAckConsumer> reader;
    EXPECT_EQ(service->CreateAckConsumer(zel::string("veld_rep"), zel::string(queue), reader.Out()),
              zel::sOk);
    return reader;
  }
  void Push(const char* queue, std::string_view text) {
    EXPECT_EQ(PushText(*Producer(queue), text), zel::sOk);
  }
  std::vector<std::string> Waiting(const char* queue) { return Texts(ReadAll(*Reader(queue), 1'000'000)); }

  // As the module puts an item into a queue that may be full.
  zel::ResultCode EvictAndPush(orvel::IQueueProducer& producer, const char* queue, std::string_view text) {
    zel::ResultCode code = PushText(producer, text);
    if (code != zel::eOutOfSpace) return code;
    const auto reader = Reader(queue);
    while (code == zel::eOutOfSpace) {
      const auto oldest = ReadOne(*reader);
      if (!oldest) break;
      reader->Ack(&oldest->token);
      code = PushText(producer, text);
    }
    return code;
  }

  TemporaryFolder folder;
  host::QueueServiceOptions options{.folder = folder.Path()};
  zel::Ref<host::QueueService> service;
};

}  // namespace veld_report::tests
