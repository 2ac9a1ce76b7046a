#include "host/queue/store_salvage.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <utility>

#include "host/base/utc.h"
#include "host/platform/file.h"
#include "host/queue/item_restorer.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_layout.h"

namespace veld_report::host {
namespace {

// Look-ups of what can be read after what can't. Each takes some microseconds, and some hundred do for a
// page.
constexpr int maxProbes = 100'000;

// Layouts 1 and 2 had a row for each item.
enum class ItemsIn { rows, blocks };

constexpr const char* damagedInfix = ".damaged-";
constexpr const char* salvagedSuffix = ".salvaged";
constexpr std::size_t pageBytes = storePageBytes;
constexpr std::size_t pageCountOffset = 28;  // in SQLite's file header, big-endian

void RemoveWithCompanions(const std::filesystem::path& file) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    RemoveFile(WithEnding(file, suffix));
  }
}

std::unique_ptr<SqliteConnection> OpenUnchanged(const std::filesystem::path& file, const std::string& vfs) {
  auto connection = std::make_unique<SqliteConnection>(file, SqliteConnection::Access::readWrite, vfs);
  connection->KeepLogOnClose(true);
  return connection;
}

// Which tables of items the file has; nothing if it has none. Throws SqliteError if the schema is damaged.
std::optional<ItemsIn> TablesOf(const SqliteConnection& connection) {
  const auto has = [&](const std::string& table, const char* columns) {
    if (connection.QueryInteger("SELECT count(*) FROM sqlite_schema WHERE name IN ('queues', '" + table +
                                "')") != 2)
      return false;
    const SqliteStatement readable(connection, std::string("SELECT ") + columns + " FROM " + table);
    return true;
  };
  if (has("blocks", "key, data")) return ItemsIn::blocks;
  if (has("items", "token, enqueued_ms, data, queue")) return ItemsIn::rows;
  return std::nullopt;
}

// A copy of a file with the first page of a new store in place of its own. Removed with the object.
class CopyWithNewFirstPage {
 public:
  CopyWithNewFirstPage(const std::filesystem::path& source, std::int64_t layout, const std::string& vfs)
      : copy_(WithEnding(source, ".salvage")) {
    Copy(source, copy_);
    const auto log = WithEnding(source, "-wal");
    if (FileStatus::Of(log)) Copy(log, WithEnding(copy_, "-wal"));
    std::array<char, pageBytes> page = NewFirstPage(WithEnding(source, ".fresh"), layout, vfs);
    // SQLite opens no file that ends before the root of a table, or has more pages than its log says.
    const std::uint32_t rootPages = layout == storeLayoutVersion ? 5 : 6;
    File file = File::Open(copy_, File::Mode::writeExisting);
    const auto pages = std::max(rootPages, static_cast<std::uint32_t>(file ? file.Size() / pageBytes : 0));
    for (std::size_t i = 0; i < 4; ++i) page[pageCountOffset + i] = static_cast<char>(pages >> (24 - 8 * i));
    const bool written =
        file && file.Truncate(pages * pageBytes) && file.WriteAt({page.data(), page.size()}, 0);
    if (!written) throw StoreError("can't write " + Utf8(copy_) + "; make room on that disk");
  }
  CopyWithNewFirstPage(const CopyWithNewFirstPage&) = delete;
  CopyWithNewFirstPage& operator=(const CopyWithNewFirstPage&) = delete;
  ~CopyWithNewFirstPage() { RemoveWithCompanions(copy_); }

  const std::filesystem::path& Path() const { return copy_; }

 private:
  static void Copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    PreparePrivateFile(to);
    std::ifstream in(SystemPath(from), std::ios::binary);
    std::ofstream out(SystemPath(to), std::ios::binary | std::ios::trunc);
    // An empty file would count as a failure.
    if (in && in.peek() != std::ifstream::traits_type::eof()) out << in.rdbuf();
    if (!in || !out.flush())
      throw StoreError("can't copy " + Utf8(from) + " to salvage it; make room on its disk");
  }
  static std::array<char, pageBytes> NewFirstPage(const std::filesystem::path& donor, std::int64_t layout,
                                                  const std::string& vfs) {
    RemoveWithCompanions(donor);
    PreparePrivateFile(donor);
    SqliteConnection(donor, SqliteConnection::Access::readWrite, vfs)
        .Execute("PRAGMA journal_mode=WAL;" + LayoutSql(layout));
    std::array<char, pageBytes> page{};
    std::ifstream(SystemPath(donor), std::ios::binary).read(page.data(), page.size());
    RemoveWithCompanions(donor);
    return page;
  }

  const std::filesystem::path copy_;
};

class Salvage {
 public:
  // `whole`: what can't be read fails the salvage.
  Salvage(StoreFile& target, SqliteConnection& source, ItemsIn from, bool whole)
      : target_(target), source_(source), from_(from), whole_(whole), restorer_(target) {}

  SalvageReport Run() {
    target_.Begin();
    try {
      ReadQueues();
      ReadNames();
      if (from_ == ItemsIn::blocks) ReadGone();
      ReadItems();
      BookQueues();
      target_.Commit();
    } catch (...) {
      target_.Rollback();
      throw;
    }
    return std::move(report_);
  }

 private:
  using OnRow = std::function<void(SqliteStatement&)>;
  using OnPart = std::function<std::optional<std::uint64_t>(std::uint64_t from)>;

  struct Queue {
    ItemRestorer::Queue* restored = nullptr;
    bool present = true;
    QueueLedger ledger;          // of the source, and so are the positions
    QueuePositions positions;    // without `last` and `front` if these can't be trusted
    std::uint64_t position = 0;  // of the last item that was a row of its own
  };

  // Prepares a query on the source. Nothing if its tables can't be read.
  std::optional<SqliteStatement> Prepare(const std::string& sql) {
    try {
      return std::optional<SqliteStatement>(std::in_place, source_, sql);
    } catch (const SqliteError&) {
      if (whole_) throw;
      return std::nullopt;
    }
  }

  // Runs a query on the source until it ends or fails. Returns true if it ended.
  bool ReadRows(SqliteStatement& rows, std::uint64_t parameter, const OnRow& onRow) {
    const StatementScope scope(rows);
    rows.Bind(1, static_cast<std::int64_t>(parameter));
    while (true) {
      // Only failures of the source are caught here, not those of the target in onRow.
      try {
        if (!rows.Step()) return true;
      } catch (const SqliteError& error) {
        if (whole_ || !error.IsDamage()) throw;
        return false;
      }
      onRow(rows);
    }
  }
  bool ReadRows(const std::string& sql, std::uint64_t parameter, const OnRow& onRow) {
    auto rows = Prepare(sql);
    return rows && ReadRows(*rows, parameter, onRow);
  }

  // The same for rows that ascend by their first column, but what fails is stepped over. `onPart` may take
  // what can be read of the row with a key from `from` on, and then returns that key.
  void ReadOn(const std::string& sql, const OnRow& onRow, const OnPart& onPart = {}) {
    auto rows = Prepare(sql);
    auto probe = Prepare(sql + " LIMIT 1");
    if (!rows || !probe) return;
    std::optional<std::uint64_t> from = 0;
    while (from) {
      const bool ended = ReadRows(*rows, *from, [&](SqliteStatement& row) {
        // In a damaged table, a key may be lower than the one before.
        from = std::max(*from, static_cast<std::uint64_t>(row.Integer(0)) + 1);
        onRow(row);
      });
      if (ended) return;
      const auto part = onPart ? onPart(*from) : std::nullopt;
      from = part && *part >= *from ? *part + 1 : NextReadable(*probe, *from);
    }
  }

  // The key from which reading goes on. Unreadable pages hold similar numbers of items; so with steps that
  // double, the first one beyond a page lands on the next one. The keys of different queues are far apart, so
  // no step goes from one to another.
  std::optional<std::uint64_t> NextReadable(SqliteStatement& probe, std::uint64_t failed) {
    const auto isReadable = [&](std::uint64_t key) {
      ++probes_;
      return ReadRows(probe, key, [](SqliteStatement&) {});
    };
    for (std::int64_t id = QueueOf(failed); id <= highestId_ && probes_ < maxProbes;
         failed = KeyOf(++id, 0)) {
      if (PositionOf(failed) == 0 && isReadable(failed)) return failed;
      for (std::uint64_t step = 1; PositionOf(failed) + step <= maxPosition; step *= 2) {
        if (!isReadable(failed + step)) continue;
        std::uint64_t bad = failed + step / 2;
        std::uint64_t good = failed + step;
        // There may be more unreadable pages, and readable ones between them.
        const std::uint64_t stride = std::max<std::uint64_t>(1, (good - bad) / 64);
        while (good - bad > stride && !isReadable(bad + stride)) bad += stride;
        good = std::min(good, bad + stride);
        while (good - bad > 1) {
          const std::uint64_t middle = bad + (good - bad) / 2;
          (isReadable(middle) ? good : bad) = middle;
        }
        return good;
      }
    }
    return std::nullopt;
  }

  Queue& FindOrAdd(std::int64_t id, const std::string& name) {
    const auto [place, isNew] = queues_.try_emplace(id);
    if (isNew) place->second.restored = &restorer_.Open(name);
    highestId_ = std::clamp(id, highestId_, maxQueueId);
    return place->second;
  }
  Queue& QueueOfItem(std::int64_t id) {
    if (whole_ && !queues_.contains(id)) throw SqliteError(SQLITE_CORRUPT, "an item belongs to no queue");
    return FindOrAdd(id, "recovered-" + std::to_string(id));
  }

  void ReadQueues() {
    // By position, since earlier layouts have fewer columns.
    figuresKnown_ = ReadRows("SELECT * FROM queues WHERE id>=?1 ORDER BY id", 0, [&](SqliteStatement& row) {
      const std::string name(row.Text(1));
      Queue& queue = FindOrAdd(row.Integer(0), name);
      queue.present = row.Integer(2) != 0;
      int column = 3;
      for (ItemCount* figure : queue.ledger.All()) {
        if (column + 1 >= row.Columns()) break;
        figure->items = row.Integer(column++);
        figure->bytes = row.Integer(column++);
      }
      if (from_ == ItemsIn::rows) return;
      QueuePositions positions;
      positions.last = static_cast<std::uint64_t>(row.Integer(column));
      positions.front = static_cast<std::uint64_t>(row.Integer(column + 1));
      if (row.Integer(column + 2) == SumOfQueue(row.Integer(0), name, positions)) queue.positions = positions;
    });
    // There may be more that can't be read.
    if (!figuresKnown_) highestId_ = std::min(maxQueueId, highestId_ + 1000);
  }

  // The names' index has all names a second time.
  void ReadNames() {
    if (figuresKnown_) return;
    ReadRows("SELECT id, name FROM queues INDEXED BY sqlite_autoindex_queues_1 WHERE name>='' AND id>=?1", 0,
             [&](SqliteStatement& row) { FindOrAdd(row.Integer(0), std::string(row.Text(1))); });
  }

  void ReadGone() {
    ReadOn("SELECT first, count, sum FROM gone WHERE first>=?1 ORDER BY first", [&](SqliteStatement& row) {
      const auto first = static_cast<std::uint64_t>(row.Integer(0));
      const auto count = static_cast<std::uint64_t>(row.Integer(1));
      if (row.Integer(2) != SumOfGone(first, count)) return;
      if (first == 0) return RaiseBeginning(count);
      const auto found = queues_.find(QueueOf(first));
      if (found != queues_.end())
        found->second.positions.gone.Add(PositionOf(first), PositionOf(first) + count - 1);
    });
  }

  // Where new queues begin (StoreFile::BeginAfter).
  void RaiseBeginning(std::uint64_t position) {
    const std::int64_t own =
        target_.Connection().QueryInteger("SELECT coalesce(max(count), 0) FROM gone WHERE first=0");
    if (position > static_cast<std::uint64_t>(own)) target_.BeginAfter(position);
  }

  void ReadItems() {
    if (from_ == ItemsIn::blocks) {
      ReadOn(
          "SELECT key, data FROM blocks WHERE key>=?1 ORDER BY key",
          [&](SqliteStatement& row) {
            RestoreBlock(static_cast<std::uint64_t>(row.Integer(0)), row.Blob(1));
          },
          [&](std::uint64_t from) { return RestorePart(from); });
    } else {
      ReadOn("SELECT token, enqueued_ms, data, queue FROM items WHERE token>=?1 ORDER BY token",
             [&](SqliteStatement& row) { RestoreRow(row); });
    }
  }

  // A block is spread over a chain of pages, which may break off.
  std::optional<std::uint64_t> RestorePart(std::uint64_t from) {
    constexpr int step = 1024;
    std::optional<std::uint64_t> key;
    ReadRows("SELECT key FROM blocks WHERE key>=?1 ORDER BY key LIMIT 1", from,
             [&](SqliteStatement& row) { key = static_cast<std::uint64_t>(row.Integer(0)); });
    if (!key) return std::nullopt;
    sqlite3_blob* blob = nullptr;
    const int opened = sqlite3_blob_open(source_.Handle(), "main", "blocks", "data",
                                         static_cast<std::int64_t>(*key), 0, &blob);
    const std::unique_ptr<sqlite3_blob, decltype(&sqlite3_blob_close)> closing(blob, sqlite3_blob_close);
    if (opened != SQLITE_OK) return key;
    std::vector<std::uint8_t> part;
    for (int at = 0, size = sqlite3_blob_bytes(blob); at < size; at += step) {
      const int count = std::min(step, size - at);
      part.resize(static_cast<std::size_t>(at + count));
      if (sqlite3_blob_read(blob, part.data() + at, count, at) == SQLITE_OK) continue;
      part.resize(static_cast<std::size_t>(at));
      break;
    }
    RestoreBlock(*key, part);
    return key;
  }

  void RestoreBlock(std::uint64_t key, std::span<const std::uint8_t> data) {
    auto block = BlockReader::Open(key, data);
    if (!block) return;
    Queue& queue = QueueOfItem(QueueOf(key));
    const QueuePositions& positions = queue.positions;
    BlockItem item;
    while (block->Next(&item)) {
      const std::uint64_t position = PositionOf(item.key);
      const bool isGone = position <= positions.front || positions.gone.Contains(position);
      if (!isGone && item.IsIntact()) restorer_.Add(*queue.restored, position, item.enqueuedMs, item.data);
    }
  }

  // The tokens of all queues were one sequence. The positions follow each other from the first token on, so
  // they are below those of items that have come since.
  void RestoreRow(SqliteStatement& row) {
    Queue& queue = QueueOfItem(row.Integer(3));
    if (queue.position == 0 && !whole_) queue.position = static_cast<std::uint64_t>(row.Integer(0)) - 1;
    const bool isRestored = restorer_.Add(*queue.restored, ++queue.position, row.Integer(1), row.Blob(2));
    if (whole_ && !isRestored) throw SqliteError(SQLITE_CORRUPT, "an item can't be kept");
  }

  void BookQueues() {
    ItemCount lost;
    for (auto& [id, queue] : queues_) {
      const ItemCount salvaged = queue.restored->count;
      QueueLedger ledger = queue.ledger;
      ItemCount gone = ledger.waiting;
      gone += -salvaged;
      if (gone.items < 0 || gone.bytes < 0) gone = {};
      ledger.removed += gone;
      ledger.damaged += gone;
      ledger.waiting = salvaged;
      ledger.accepted = ledger.delivered;
      for (const ItemCount& part : {ledger.evicted, ledger.rejected, ledger.removed, ledger.waiting}) {
        ledger.accepted += part;
      }
      restorer_.Close(*queue.restored, queue.positions.last, queue.present || salvaged.items != 0, ledger);
      report_.salvaged += salvaged;
      lost += gone;
    }
    if (figuresKnown_) report_.lost = lost;
  }

  StoreFile& target_;
  SqliteConnection& source_;
  const ItemsIn from_;
  const bool whole_;
  ItemRestorer restorer_;
  std::map<std::int64_t, Queue> queues_;
  std::int64_t highestId_ = 0;
  int probes_ = 0;
  bool figuresKnown_ = false;
  SalvageReport report_;
};

// Read with the first page of the other layout, a table has a number in place of the bytes.
bool HasBlocks(const SqliteConnection& connection) {
  for (const char* order : {"", " DESC"}) {
    try {
      SqliteStatement row(connection,
                          std::string("SELECT typeof(data) FROM blocks ORDER BY key") + order + " LIMIT 1");
      return !row.Step() || row.Text(0) == "blob";
    } catch (const SqliteError& error) {
      if (!error.IsDamage()) throw;
    }
  }
  return true;
}

SalvageReport SalvageFrom(StoreFile& target, const std::filesystem::path& source, const std::string& vfs) {
  try {
    const auto connection = OpenUnchanged(source, vfs);
    if (const auto from = TablesOf(*connection)) return Salvage(target, *connection, *from, false).Run();
  } catch (const SqliteError& error) {
    if (!error.IsDamage()) throw;
  }
  {
    const CopyWithNewFirstPage copy(source, storeLayoutVersion, vfs);
    const auto connection = OpenUnchanged(copy.Path(), vfs);
    if (HasBlocks(*connection)) return Salvage(target, *connection, ItemsIn::blocks, false).Run();
  }
  const CopyWithNewFirstPage copy(source, 2, vfs);
  const auto connection = OpenUnchanged(copy.Path(), vfs);
  return Salvage(target, *connection, ItemsIn::rows, false).Run();
}

}  // namespace

std::filesystem::path MoveStoreAside(const std::filesystem::path& file, std::int64_t nowMs) {
  const UtcTime utc = UtcOf(nowMs / 1000);
  char time[96] = {};
  static_cast<void>(std::snprintf(time, sizeof time, "%04d%02d%02dT%02d%02d%02dZ", utc.year, utc.month,
                                  utc.day, utc.hour, utc.minute, utc.second));
  const std::filesystem::path base = WithEnding(WithEnding(file, damagedInfix), time);
  std::filesystem::path aside = base;
  for (int number = 2; FileStatus::Of(aside); ++number)
    aside = WithEnding(base, ("-" + std::to_string(number)).c_str());
  // The log first: a file without its log would look like an older, intact store.
  for (const char* suffix : {"-wal", "-journal", ""}) {
    const auto part = WithEnding(file, suffix);
    const auto status = FileStatus::Of(part);
    if (!status || (*suffix && status->bytes == 0 && RemoveFile(part))) continue;
    if (const std::error_code error = Rename(part, WithEnding(aside, suffix)))
      throw StoreError("can't move the damaged store aside to " + Utf8(aside) + ": " + error.message());
  }
  RemoveFile(WithEnding(file, "-shm"));
  return aside;
}

std::vector<std::filesystem::path> DamagedFilesOf(const std::filesystem::path& file) {
  const std::string prefix = Utf8(file.filename()) + damagedInfix;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : EntriesOf(file.parent_path())) {
    const std::string name = Utf8(entry.filename());
    if (!name.starts_with(prefix)) continue;
    // The names of logs and markers continue with lower-case letters.
    const bool isFile = name.find_first_not_of("0123456789TZ-", prefix.size()) == std::string::npos;
    if (isFile) files.push_back(entry);
  }
  std::ranges::sort(files);
  return files;
}

void DeleteDamagedFile(const std::filesystem::path& damaged) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal", salvagedSuffix}) {
    if (!RemoveFile(WithEnding(damaged, suffix)))
      throw StoreError("can't delete the damaged store " + Utf8(damaged) + suffix +
                       "; give this user the right to write in its folder");
  }
}

void CopyInto(StoreFile& target, SqliteConnection& source) {
  const auto from = TablesOf(source);
  if (!from) throw SqliteError(SQLITE_CORRUPT, "the tables of the store are missing");
  Salvage(target, source, *from, true).Run();
}

SalvageReport SalvageInto(StoreFile& target, const std::filesystem::path& source, const std::string& vfs) {
  SalvageReport report = SalvageFrom(target, source, vfs);
  report.source = source;
  RemoveFile(WithEnding(source, "-shm"));
  PreparePrivateFile(WithEnding(source, salvagedSuffix));
  return report;
}

bool IsSalvaged(const std::filesystem::path& source) {
  return FileStatus::Of(WithEnding(source, salvagedSuffix)).has_value();
}

std::string Describe(const SalvageReport& report) {
  std::string text = "the damaged store is kept as " + Utf8(report.source) + "; " +
                     std::to_string(report.salvaged.items) + " items were salvaged and ";
  return text + (report.lost ? std::to_string(report.lost->items) + " are lost"
                             : std::string("an unknown number is lost"));
}

}  // namespace veld_report::host
