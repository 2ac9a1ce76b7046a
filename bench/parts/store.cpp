// The queue service next to plain SQLite with grouped transactions: items of 200 bytes in and out.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/common/thread_time.h"
#include "host/queue/queue_service.h"

namespace veld_report::bench {
namespace {

constexpr int items = 10'000;
const std::string item(200, 'x');

class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "veld-bench-XXXXXX").string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("no folder can be made in the temporary one");
    path = name;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::filesystem::path path;
};

// A straightforward store: one table, prepared statements, a transaction per hundred items.
class PlainStore {
 public:
  PlainStore() {
    Check(sqlite3_open((folder_.path / "plain.db").c_str(), &database_));
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=NORMAL");
    Execute("CREATE TABLE item (id INTEGER PRIMARY KEY, data BLOB)");
    insert_ = Prepare("INSERT INTO item (data) VALUES (?)");
    select_ = Prepare("SELECT id, data FROM item ORDER BY id LIMIT 100");
    delete_ = Prepare("DELETE FROM item WHERE id = ?");
  }
  PlainStore(const PlainStore&) = delete;
  PlainStore& operator=(const PlainStore&) = delete;
  ~PlainStore() {
    for (sqlite3_stmt* statement : {insert_, select_, delete_}) sqlite3_finalize(statement);
    sqlite3_close(database_);
  }

  void Push() {
    for (int i = 0; i < items; ++i) {
      if (i % group == 0) Execute("BEGIN");
      sqlite3_bind_blob(insert_, 1, item.data(), static_cast<int>(item.size()), SQLITE_STATIC);
      Step(insert_);
      if (i % group == group - 1) Execute("COMMIT");
    }
  }
  void ReadAndDelete() {
    for (int i = 0; i < items; i += group) {
      sqlite3_int64 ids[group] = {};
      std::string copies[group];
      int count = 0;
      while (sqlite3_step(select_) == SQLITE_ROW) {
        ids[count] = sqlite3_column_int64(select_, 0);
        copies[count].assign(static_cast<const char*>(sqlite3_column_blob(select_, 1)),
                             static_cast<std::size_t>(sqlite3_column_bytes(select_, 1)));
        ++count;
      }
      sqlite3_reset(select_);
      if (count != group) throw std::runtime_error("plain store: items are missing");
      benchmark::DoNotOptimize(copies);
      Execute("BEGIN");
      for (const sqlite3_int64 id : ids) {
        sqlite3_bind_int64(delete_, 1, id);
        Step(delete_);
      }
      Execute("COMMIT");
    }
  }

 private:
  static constexpr int group = 100;

  static void Check(int code) {
    if (code != SQLITE_OK) throw std::runtime_error(std::string("plain store: ") + sqlite3_errstr(code));
  }
  void Execute(const char* sql) { Check(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr)); }
  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Check(sqlite3_prepare_v2(database_, sql, -1, &statement, nullptr));
    return statement;
  }
  static void Step(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) throw std::runtime_error("plain store: a statement fails");
    Check(sqlite3_reset(statement));
  }

  const Folder folder_;
  sqlite3* database_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

class KitStore {
 public:
  KitStore() {
    host::QueueServiceOptions options;
    options.folder = folder_.path;
    service_ = host::QueueService::Open(options);
    service_->CreateProducer(domain_, name_, UINT32_MAX, producer_.Out());
  }

  void Push() {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(item.data());
    const zel::ByteRange range{bytes, bytes + item.size()};
    for (int i = 0; i < items; ++i) {
      if (producer_->Push(&range) != zel::sOk) throw std::runtime_error("store: a push is refused");
    }
    if (!service_->Commit()) throw std::runtime_error("store: can't be written");
  }
  // As in the walk: a packet's acknowledgements follow its reads.
  void ReadAndAcknowledge() {
    zel::Ref<orvel::IAckConsumer> reader;
    service_->CreateAckConsumer(domain_, name_, reader.Out());
    zel::vector_t<std::uint8_t> scratch;
    std::uint64_t tokens[100];
    for (int i = 0; i < items; i += 100) {
      for (std::uint64_t& token : tokens) {
        if (reader->Read(&scratch, &token) != zel::sOk) throw std::runtime_error("store: items are missing");
      }
      for (const std::uint64_t& token : tokens) reader->Ack(&token);
    }
    reader.Reset();
    if (!service_->Commit()) throw std::runtime_error("store: can't be written");
  }

 private:
  const Folder folder_;
  const zel::string domain_{host::defaultDomain};
  const zel::string name_{"0123456789abcdef0123456789abcdef"};
  zel::Ref<host::QueueService> service_;
  zel::Ref<orvel::IQueueProducer> producer_;
};

// One iteration is that many items. `cpu_us`: CPU time of all threads of the process, per item.
template <class Timed, class Untimed>
void Measure(benchmark::State& state, Timed&& timed, Untimed&& untimed, bool timedFirst) {
  double cpu = 0;
  for (auto _ : state) {
    if (!timedFirst) untimed();
    const double cpuBefore = ProcessCpuSeconds();
    const auto begin = std::chrono::steady_clock::now();
    timed();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    cpu += ProcessCpuSeconds() - cpuBefore;
    if (timedFirst) untimed();
  }
  state.counters["cpu_us"] = cpu / static_cast<double>(state.iterations()) / items * 1e6;
  state.SetItemsProcessed(state.iterations() * items);
}

void StorePush(benchmark::State& state) {
  KitStore store;
  Measure(
      state, [&] { store.Push(); }, [&] { store.ReadAndAcknowledge(); }, true);
}
BENCHMARK(StorePush)->UseManualTime()->Unit(benchmark::kMillisecond);

void StorePushPlain(benchmark::State& state) {
  PlainStore store;
  Measure(
      state, [&] { store.Push(); }, [&] { store.ReadAndDelete(); }, true);
}
BENCHMARK(StorePushPlain)->UseManualTime()->Unit(benchmark::kMillisecond);

void StoreReadAck(benchmark::State& state) {
  KitStore store;
  Measure(
      state, [&] { store.ReadAndAcknowledge(); }, [&] { store.Push(); }, false);
}
BENCHMARK(StoreReadAck)->UseManualTime()->Unit(benchmark::kMillisecond);

void StoreReadAckPlain(benchmark::State& state) {
  PlainStore store;
  Measure(
      state, [&] { store.ReadAndDelete(); }, [&] { store.Push(); }, false);
}
BENCHMARK(StoreReadAckPlain)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace veld_report::bench
