// What a store must hold: the items of each queue in their order, and its figures, as they follow from what
// the calls have answered.
//
// A test makes its calls through the model, and compares with what a store really holds (StoreModel::Of) when
// it likes: after each call, after a failure, after a power loss. Copies are snapshots.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>

#include "host/queue/queue_service.h"
#include "host/queue/store_layout.h"
#include "tests/common/files.h"
#include "tests/host/queue_items.h"

namespace veld_report::tests {

enum class Fate { acknowledged, givenBack, kept };  // of an item that was read

class StoreModel {
 public:
  struct Queue {
    Strings items{};
    QueueLedger ledger{};
    bool operator==(const Queue&) const = default;
  };

  // What the store of this service holds. Its figures must balance.
  static StoreModel Of(host::QueueService& service) {
    StoreModel model;
    for (const auto& [name, ledger] : service.Ledgers()) {
      EXPECT_TRUE(ledger.IsBalanced()) << name;
      model.queues_[name].ledger = ledger;
    }
    for (const host::QueueInfo& queue : service.ListQueues()) {
      for (host::PeekedItem& item : service.PeekItems(queue.name, 100'000))
        model.queues_[queue.name].items.push_back(std::move(item.bytes));
    }
    std::erase_if(model.queues_, [](const auto& queue) { return queue.second == Queue(); });
    return model;
  }
  bool operator==(const StoreModel&) const = default;

  // `answer`: what the store answered to the push of this item.
  void Pushed(const std::string& queue, std::string_view text, zel::ResultCode answer) {
    Queue& to = queues_[queue];
    to.ledger.accepted += One(text);
    (answer == zel::sOk ? to.ledger.waiting : to.ledger.rejected) += One(text);
    if (answer == zel::sOk) to.items.emplace_back(text);
  }
  void Removed(const std::string& queue) {
    const auto found = queues_.find(queue);
    if (found == queues_.end()) return;
    found->second.items.clear();
    found->second.ledger.removed += std::exchange(found->second.ledger.waiting, {});
  }

  // A visit: reads the oldest `count` items, for each of which `fate` says what becomes of it.
  void Visit(const std::string& queue, orvel::IAckConsumer& reader, std::size_t count,
             const std::function<Fate(std::size_t)>& fate) {
    const std::vector<ReadItem> items = ReadAll(reader, count);
    for (std::size_t i = 0; i < items.size(); ++i) {
      const ReadItem& item = items[i];
      EXPECT_EQ(std::ranges::count(queues_[queue].items, item.bytes), 1) << item.bytes << " doesn't wait";
      const Fate becomes = fate(i);
      if (becomes == Fate::acknowledged) {
        EXPECT_EQ(reader.Ack(&item.token), zel::sOk);
        std::erase(queues_[queue].items, item.bytes);
        queues_[queue].ledger.Leave(&QueueLedger::delivered, One(item.bytes));
      } else if (becomes == Fate::givenBack) {
        EXPECT_EQ(reader.ReturnItem(&item.token), zel::sOk);
        queues_[queue].ledger.returned += One(item.bytes);
      }
    }
  }

  const std::map<std::string, Queue>& Queues() const { return queues_; }
  Strings Items(const std::string& queue) const {
    const auto found = queues_.find(queue);
    return found == queues_.end() ? Strings() : found->second.items;
  }
  QueueLedger& Ledger(const std::string& queue) { return queues_[queue].ledger; }

 private:
  static ItemCount One(std::string_view text) { return {1, static_cast<std::int64_t>(text.size())}; }

  std::map<std::string, Queue> queues_;
};

// Rewrites a store that is closed in the layout 1 or 2. These had no positions, and items of all queues in
// turn.
inline void WriteInLayout(int version, const StoreModel& holding, const std::filesystem::path& file) {
  WriteFile(file, "");
  host::SqliteConnection connection(file, host::SqliteConnection::Access::readWrite);
  connection.Execute("PRAGMA journal_mode=WAL;" + host::LayoutSql(version) + ";BEGIN");
  std::size_t most = 0;
  for (const auto& [name, queue] : holding.Queues()) {
    std::string figures;
    for (const ItemCount* figure : queue.ledger.All())
      figures += ", " + std::to_string(figure->items) + ", " + std::to_string(figure->bytes);
    if (version == 1) figures.erase(figures.rfind(", 0, 0, 0, 0"));
    connection.Execute("INSERT INTO queues SELECT NULL, '" + name + "', 1" + figures);
    most = std::max(most, queue.items.size());
  }
  host::SqliteStatement add(connection,
                            "INSERT INTO items SELECT NULL, id, 1700000000000, ?2 FROM queues WHERE name=?1");
  for (std::size_t i = 0; i < most; ++i) {
    for (const auto& [name, queue] : holding.Queues()) {
      if (i >= queue.items.size()) continue;
      const auto* const first = reinterpret_cast<const std::uint8_t*>(queue.items[i].data());
      add.Bind(1, name).Bind(2, std::span(first, queue.items[i].size())).Run();
    }
  }
  connection.Execute("COMMIT");
}

// For the reports of failures.
inline void PrintTo(const StoreModel& model, std::ostream* out) {
  for (const auto& [name, queue] : model.Queues()) {
    *out << name << ":";
    for (const ItemCount* figure : queue.ledger.All()) *out << " " << figure->items;
    for (const std::string& text : queue.items) *out << " '" << text.substr(0, 12) << "'";
    *out << "\n";
  }
}

}  // namespace veld_report::tests
