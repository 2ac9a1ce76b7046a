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
#include <system_error>
#include <utility>

#include "host/base/utc.h"
#include "host/queue/store_folder.h"

namespace veld_report::host {
namespace {

// Limits the lookups between the two scans. Each takes about a microsecond.
constexpr std::uint64_t maxLookups = 1'000'000;
constexpr const char* damagedInfix = ".damaged-";
constexpr const char* salvagedSuffix = ".salvaged";
constexpr std::size_t pageBytes = storePageBytes;
constexpr std::size_t pageCountOffset = 28;  // in SQLite's file header, big-endian

std::filesystem::path With(const std::filesystem::path& file, const char* suffix) {
  return file.string() + suffix;
}

void RemoveWithCompanions(const std::filesystem::path& file) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    std::error_code ignored;
    std::filesystem::remove(With(file, suffix), ignored);
  }
}

std::unique_ptr<SqliteConnection> OpenUnchanged(const std::filesystem::path& file, const std::string& vfs) {
  auto connection = std::make_unique<SqliteConnection>(file, SqliteConnection::Access::readWrite, vfs);
  connection->KeepLogOnClose(true);
  return connection;
}

bool HasTables(const SqliteConnection& connection) {
  return connection.QueryInteger("SELECT count(*) FROM sqlite_schema WHERE name IN ('queues', 'items')") == 2;
}

// A copy of a file with the first page of a new store in place of its own. Removed with the object.
class CopyWithNewFirstPage {
 public:
  CopyWithNewFirstPage(const std::filesystem::path& source, const std::string& vfs)
      : copy_(With(source, ".salvage")) {
    Copy(source, copy_);
    const auto log = With(source, "-wal");
    if (std::filesystem::exists(log)) Copy(log, With(copy_, "-wal"));
    std::array<char, pageBytes> page = NewFirstPage(With(source, ".fresh"), vfs);
    const auto pages = static_cast<std::uint32_t>(std::filesystem::file_size(copy_) / pageBytes);
    for (std::size_t i = 0; i < 4; ++i) page[pageCountOffset + i] = static_cast<char>(pages >> (24 - 8 * i));
    std::fstream stream(copy_, std::ios::in | std::ios::out | std::ios::binary);
    stream.write(page.data(), page.size());
    if (!stream.flush()) throw StoreError("can't write " + copy_.string() + "; make room on that disk");
  }
  CopyWithNewFirstPage(const CopyWithNewFirstPage&) = delete;
  CopyWithNewFirstPage& operator=(const CopyWithNewFirstPage&) = delete;
  ~CopyWithNewFirstPage() { RemoveWithCompanions(copy_); }

  const std::filesystem::path& Path() const { return copy_; }

 private:
  static void Copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    PreparePrivateFile(to);
    std::error_code error;
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, error);
    if (error) throw StoreError("can't copy " + from.string() + " to salvage it: " + error.message());
  }
  static std::array<char, pageBytes> NewFirstPage(const std::filesystem::path& donor,
                                                  const std::string& vfs) {
    RemoveWithCompanions(donor);
    PreparePrivateFile(donor);
    { const StoreFile made(donor, {.vfs = vfs}); }
    std::array<char, pageBytes> page{};
    std::ifstream(donor, std::ios::binary).read(page.data(), page.size());
    RemoveWithCompanions(donor);
    return page;
  }

  const std::filesystem::path copy_;
};

class Salvage {
 public:
  Salvage(StoreFile& target, SqliteConnection& source) : target_(target), source_(source) {}

  SalvageReport Run() {
    target_.Begin();
    try {
      ReadQueues();
      ReadNames();
      ReadItems();
      BookQueues();
      target_.RaiseTokens(highestToken_);
      target_.Commit();
    } catch (...) {
      target_.Rollback();
      throw;
    }
    return std::move(report_);
  }

 private:
  struct Queue {
    std::int64_t targetId = 0;
    bool present = true;
    QueueLedger ledger;  // of the source
    ItemCount salvaged;
  };

  // Runs a query on the source until it ends or fails. Returns true if it ended.
  bool ReadRows(const std::string& sql, std::uint64_t parameter,
                const std::function<void(SqliteStatement&)>& onRow) {
    std::unique_ptr<SqliteStatement> rows;
    try {
      rows = std::make_unique<SqliteStatement>(source_, sql);
      rows->Bind(1, static_cast<std::int64_t>(parameter));
    } catch (const SqliteError&) {
      return false;
    }
    while (true) {
      // Only failures of the source are caught here, not those of the target in onRow.
      try {
        if (!rows->Step()) return true;
      } catch (const SqliteError&) {
        return false;
      }
      onRow(*rows);
    }
  }

  Queue& FindOrAdd(std::int64_t id, const std::string& name) {
    const auto [place, isNew] = queues_.try_emplace(id);
    if (isNew) place->second.targetId = target_.AddQueue(name);
    return place->second;
  }

  void ReadQueues() {
    // By position, since earlier layouts have fewer columns.
    figuresKnown_ = ReadRows("SELECT * FROM queues WHERE id>=?1 ORDER BY id", 0, [&](SqliteStatement& row) {
      Queue& queue = FindOrAdd(row.Integer(0), std::string(row.Text(1)));
      queue.present = row.Integer(2) != 0;
      int column = 3;
      for (ItemCount* figure : queue.ledger.All()) {
        if (column + 1 >= row.Columns()) break;
        figure->items = row.Integer(column++);
        figure->bytes = row.Integer(column++);
      }
    });
  }

  // The names' index has all names a second time.
  void ReadNames() {
    if (figuresKnown_) return;
    ReadRows("SELECT id, name FROM queues INDEXED BY sqlite_autoindex_queues_1 WHERE name>='' AND id>=?1", 0,
             [&](SqliteStatement& row) { FindOrAdd(row.Integer(0), std::string(row.Text(1))); });
  }

  void ReadItems() {
    const std::string columns = "SELECT token, enqueued_ms, data, queue FROM items WHERE token";
    std::uint64_t low = 0;
    const bool ended =
        ReadRows(columns + ">?1 ORDER BY token", 0, [&](SqliteStatement& row) { low = Restore(row); });
    ReadRows("SELECT seq FROM sqlite_sequence WHERE name='items' AND seq>=?1", 0,
             [&](SqliteStatement& row) { Raise(static_cast<std::uint64_t>(row.Integer(0))); });
    if (ended) return;
    std::uint64_t high = std::max(highestToken_, low) + 1;
    ReadRows(columns + ">?1 ORDER BY token DESC", low, [&](SqliteStatement& row) { high = Restore(row); });
    const std::uint64_t end = std::min(high, low + maxLookups);
    for (std::uint64_t token = low + 1; token < end; ++token) {
      ReadRows(columns + "=?1", token, [&](SqliteStatement& row) { Restore(row); });
    }
  }

  void Raise(std::uint64_t token) { highestToken_ = std::max(highestToken_, token); }

  std::uint64_t Restore(SqliteStatement& row) {
    const auto token = static_cast<std::uint64_t>(row.Integer(0));
    const std::int64_t id = row.Integer(3);
    Queue& queue = FindOrAdd(id, "recovered-" + std::to_string(id));
    const auto data = row.Blob(2);
    if (target_.RestoreItem(queue.targetId, {token, row.Integer(1), data})) {
      queue.salvaged += ItemCount{1, static_cast<std::int64_t>(data.size())};
    }
    Raise(token);
    return token;
  }

  void BookQueues() {
    ItemCount lost;
    for (auto& [id, queue] : queues_) {
      QueueLedger ledger = queue.ledger;
      ItemCount gone = ledger.waiting;
      gone += -queue.salvaged;
      if (gone.items < 0 || gone.bytes < 0) gone = {};
      ledger.removed += gone;
      ledger.damaged += gone;
      ledger.waiting = queue.salvaged;
      ledger.accepted = ledger.delivered;
      for (const ItemCount& part : {ledger.evicted, ledger.rejected, ledger.removed, ledger.waiting}) {
        ledger.accepted += part;
      }
      target_.UpdateQueue(queue.targetId, queue.present || queue.salvaged.items != 0, ledger);
      report_.salvaged += queue.salvaged;
      lost += gone;
    }
    if (figuresKnown_) report_.lost = lost;
  }

  StoreFile& target_;
  SqliteConnection& source_;
  std::map<std::int64_t, Queue> queues_;
  bool figuresKnown_ = false;
  std::uint64_t highestToken_ = 0;
  SalvageReport report_;
};

SalvageReport SalvageFrom(StoreFile& target, const std::filesystem::path& source, const std::string& vfs) {
  try {
    const auto connection = OpenUnchanged(source, vfs);
    if (HasTables(*connection)) return Salvage(target, *connection).Run();
  } catch (const SqliteError& error) {
    if (!error.IsDamage()) throw;
  }
  const CopyWithNewFirstPage copy(source, vfs);
  const auto connection = OpenUnchanged(copy.Path(), vfs);
  return Salvage(target, *connection).Run();
}

}  // namespace

std::filesystem::path MoveStoreAside(const std::filesystem::path& file, std::int64_t nowMs) {
  const UtcTime utc = UtcOf(nowMs / 1000);
  char time[96] = {};
  static_cast<void>(std::snprintf(time, sizeof time, "%04d%02d%02dT%02d%02d%02dZ", utc.year, utc.month,
                                  utc.day, utc.hour, utc.minute, utc.second));
  const std::string base = file.string() + damagedInfix + time;
  std::filesystem::path aside = base;
  for (int number = 2; std::filesystem::exists(aside); ++number) aside = base + "-" + std::to_string(number);
  // The log first: a file without its log would look like an older, intact store.
  for (const char* suffix : {"-wal", "-journal", ""}) {
    if (!std::filesystem::exists(With(file, suffix))) continue;
    std::error_code error;
    std::filesystem::rename(With(file, suffix), With(aside, suffix), error);
    if (error)
      throw StoreError("can't move the damaged store aside to " + aside.string() + ": " + error.message());
  }
  std::error_code ignored;
  std::filesystem::remove(With(file, "-shm"), ignored);
  return aside;
}

std::vector<std::filesystem::path> DamagedFilesOf(const std::filesystem::path& file) {
  const std::string prefix = file.filename().string() + damagedInfix;
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(prefix)) continue;
    // The names of logs and markers continue with lower-case letters.
    const bool isFile = name.find_first_not_of("0123456789TZ-", prefix.size()) == std::string::npos;
    if (isFile) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

void DeleteDamagedFile(const std::filesystem::path& damaged) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal", salvagedSuffix}) {
    std::filesystem::remove(With(damaged, suffix));
  }
}

SalvageReport SalvageInto(StoreFile& target, const std::filesystem::path& source, const std::string& vfs) {
  SalvageReport report = SalvageFrom(target, source, vfs);
  report.source = source;
  std::error_code ignored;
  std::filesystem::remove(With(source, "-shm"), ignored);
  PreparePrivateFile(With(source, salvagedSuffix));
  return report;
}

bool IsSalvaged(const std::filesystem::path& source) {
  return std::filesystem::exists(With(source, salvagedSuffix));
}

std::string Describe(const SalvageReport& report) {
  std::string text = "the damaged store is kept as " + report.source.string() + "; " +
                     std::to_string(report.salvaged.items) + " items were salvaged and ";
  return text + (report.lost ? std::to_string(report.lost->items) + " are lost"
                             : std::string("an unknown number is lost"));
}

}  // namespace veld_report::host
