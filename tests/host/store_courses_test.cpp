// The courses of the queue service on SQLite.
#include <functional>
#include <future>

#include "host/queue/sqlite_connection.h"
#include "host/queue/store_salvage.h"
#include "tests/common/file_attributes.h"
#include "tests/host/queue_course.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

namespace fs = std::filesystem;
using host::SqliteConnection;

class FakePacer final : public host::DeliveryPacer {
 public:
  std::optional<host::Allowance> MayDeliver(const std::string& queueName) override {
    if (queueName == "held") return std::nullopt;
    return host::Allowance{.limitBytes = 2};
  }
  void OnPacketEnd(const std::string& queueName, const host::EndedPacket& packet) override {
    if (packet.moreWaits) calls.push_back(queueName + (packet.delivered ? " delivered" : " returned"));
  }
  Strings calls;
};

class StoreCourses : public StoreTest, protected QueueCourses {
 protected:
  ~StoreCourses() override { EndServices(); }
  void Begin() override {
    machine_ = std::make_shared<ManualMachine>();
    EnterNewFolder();
    OpenAs("one", {});
    lines_.Take();
  }
  void Restart() override { OpenAs("one", {}); }
  std::string Do(const std::string& verb, const Strings& words) override {
    const std::string name = words.empty() ? "" : words[0];
    const Strings more(words.begin() + !words.empty(), words.end());
    if (verb == "elsewhere") return std::async(std::launch::async, [&] { return Do(name, more); }).get();
    if (verb == "open") return OpenAs(name, more);
    if (verb == "fill") return Fill(name);
    if (verb == "in_order") return InOrder(name);
    if (verb == "newer") return Push("q", "text"), service->LastTokens()["q"] > lastToken_ ? "yes" : "no";
    if (verb == "crash") return Crash();
    if (verb == "spoil") return Spoil(name, std::stoul(more.at(0)), more.size() > 1);
    if (verb == "copy") return EndServices(), Copy(), "";
    if (verb == "mark")
      return EndServices(), WriteFile(Mark(), name == "opened" ? opened_ : Shown(words)), "";
    if (verb == "earlier") {
      const StoreModel holding = StoreModel::Of(*service);
      return EndServices(), WriteInLayout(std::stoi(name), holding, StorePath()), "";
    }
    if (verb == "delete") return EndServices(), Delete(name), "";
    if (verb == "compact") return EndServices(), host::CompactStore(options.folder), "";
    if (verb == "salvage") return EndServices(), Salvaged();
    if (verb == "overwrite") return EndServices(), WriteFile(StorePath(), Whole(name)), "";
    if (verb == "sql") {
      EndServices();
      return SqliteConnection(StorePath(), SqliteConnection::Access::readWrite).Execute(Shown(words)), "";
    }
    if (verb == "query") return Query(name, Shown(more));
    if (verb == "committed") return Committed();
    if (verb == "soon") return Eventually([&] { return Committed() == name; }) ? "" : Committed();
    if (verb == "files") return Files(name);
    if (verb == "holds") return AnyFile([&](auto& file) { return file.find(Whole(name)) != file.npos; });
    if (verb == "findings") {
      EndServices();
      spoiled_ = ReadFile(StorePath());
      Strings found = Findings();
      for (std::string& text : found) text = Plain(text.substr(0, text.find('\n')));
      EXPECT_TRUE(ReadFile(StorePath()) == spoiled_) << "a check changes nothing";
      return Shown(found);
    }
    if (verb == "kept") return AnyFile([&](auto& file) { return file == spoiled_; });
    if (verb == "traced") return Shown(Traced());
    if (verb == "ledger") return testing::PrintToString(Ledger(name));
    if (verb == "list") return List();
    if (verb == "peek") return service->PeekItems(name, 1).at(0).bytes;
    if (verb == "clear") return service->ClearQueue(name) ? "" : "no queue";
    if (verb == "forget") return service->Forget(), "";
    if (verb == "commit") return service->Commit() ? "" : "failed";
    if (verb == "paced") return Shown(std::exchange(pacer_->calls, {}));
    if (verb == "use") return service = services_.at(name), "";
    if (verb == "anew") return Begin(), "";
    if (verb == "close") return EndServices(), "";
    if (verb == "advance") return machine_->Pass(std::stoll(name)), "";
    if (verb == "clock") return machine_->calendarMs += std::stoll(name) * 86'400'000, "";
    if (verb == "reboot") return machine_->boot += '+', machine_->uptimeMs = 1000, "";
    return QueueCourses::Do(verb, words);
  }

 private:
  void EndServices() {
    if (service) opened_ = ReadFile(Mark());
    service.Reset();
    services_.clear();
  }
  void EnterNewFolder() {
    EndServices();
    options.folder = folder.Path() / std::to_string(++count_);
    fs::create_directory(options.folder);
  }
  // Ends the service of that name and goes on with another one.
  std::string OpenAs(const std::string& name, const Strings& words) {
    const auto has = [&](const char* word) { return std::ranges::count(words, word) != 0; };
    options = {.folder = options.folder, .tracer = lines_.tracer, .machine = machine_};
    options.shared = has("shared");
    options.inspectOnly = has("looking");
    if (has("aged")) options.maxAge = std::chrono::seconds(60);
    if (has("limited")) options.storeLimitBytes = 20;
    if (has("paced")) options.pacer = pacer_;
    options.secureDelete = has("secure");
    // Where a block ends would hang on the machine's speed.
    if (!has("timely")) options.commitDelay = std::chrono::hours(1);
    if (has("grouped")) options.commitOperations = has("large") ? 10'000 : 8;
    service.Reset();
    services_.erase(name);
    try {
      services_[name] = service = host::QueueService::Open(options);
    } catch (const host::StoreError& error) {
      return Plain(error.what());
    }
    return "";
  }
  static constexpr std::size_t itemCount = 600;
  static std::string ItemText(std::size_t number) { return Numbered(number) + std::string(300, '.'); }
  // The first ten items are delivered.
  std::string Fill(const std::string& queue) {
    const auto producer = Producer(queue);
    for (std::size_t i = 0; i < itemCount; ++i) EXPECT_EQ(PushText(*producer, ItemText(i)), zel::sOk);
    const auto reader = Reader(queue);
    for (const ReadItem& item : ReadAll(*reader, 10)) reader->Ack(&item.token);
    lastToken_ = service->LastTokens()[queue];
    return "";
  }
  // How many of them wait, unless one is twice there, out of order or wrong.
  std::string InOrder(const std::string& queue) {
    std::size_t next = 10;
    const Strings found = Waiting(queue);
    for (const std::string& text : found) {
      while (next < itemCount && ItemText(next) != text) ++next;
      if (next++ == itemCount) return text;
    }
    return std::to_string(found.size());
  }
  // Overwrites a page of a table or index. `quietly`: the file's time doesn't tell of it.
  std::string Spoil(const std::string& table, std::size_t number, bool quietly) {
    EndServices();
    const std::string root = Query(
        "veld_rep.queue", "SELECT coalesce(max(rootpage), 1) FROM sqlite_schema WHERE name='" + table + "'");
    std::string content = ReadFile(StorePath());
    const auto leaves = LeavesBelow(content, std::stoul(root));
    content.replace((leaves.at(number) - 1) * pageBytes, pageBytes, pageBytes, '\0');
    const auto write = [&] { WriteFile(StorePath(), content); };
    quietly ? ChangeQuietly(StorePath(), write) : write();
    return "";
  }
  static constexpr std::size_t pageBytes = 4096;
  // The numbers of a tree's last pages in their order, by SQLite's file format. Pages count from 1.
  static std::vector<std::size_t> LeavesBelow(const std::string& content, std::size_t page) {
    const auto number = [&](std::size_t at, int bytes) {
      std::size_t value = 0;
      while (bytes-- > 0) value = value << 8 | static_cast<std::uint8_t>(content.at(at++));
      return value;
    };
    const std::size_t start = (page - 1) * pageBytes, head = start + (page == 1 ? 100 : 0);
    if (content.at(head) & 8) return {page};
    std::vector<std::size_t> leaves;
    const auto add = [&](std::size_t at) {
      const auto more = LeavesBelow(content, number(at, 4));
      leaves.insert(leaves.end(), more.begin(), more.end());
    };
    const std::size_t cells = number(head + 3, 2);
    for (std::size_t i = 0; i < cells; ++i) add(start + number(head + 12 + 2 * i, 2));
    add(head + 8);
    return leaves;
  }
  std::string Mark() const { return StorePath().string() + ".sound"; }
  void Copy() const {
    fs::copy_file(StorePath(), folder.Path() / "copy");
    fs::rename(folder.Path() / "copy", StorePath());
  }
  void Delete(const std::string& part) {
    for (const auto& entry : fs::directory_iterator(options.folder)) {
      if (entry.path().string().ends_with(part)) fs::remove(entry);
    }
  }
  std::string Salvaged() const {
    Strings items;
    for (const auto& report : host::SalvageStore(options.folder))
      items.push_back(std::to_string(report.salvaged.items));
    return Shown(items);
  }
  // What isn't checkpointed stands in the log alone.
  std::string Crash() {
    const fs::path from = options.folder, to = folder.Path() / "crashed";
    fs::create_directory(to);
    for (const char* name : {"veld_rep.queue", "veld_rep.queue-wal"}) fs::copy_file(from / name, to / name);
    EnterNewFolder();
    fs::remove(options.folder);
    fs::rename(to, options.folder);
    return "";
  }
  // A connection of its own sees what a crash would leave.
  std::string Query(const std::string& name, const std::string& statement) const {
    return std::to_string(
        SqliteConnection(options.folder / name, SqliteConnection::Access::read).QueryInteger(statement));
  }
  std::string Committed() const {
    return Query(
        "veld_rep.queue",
        "SELECT coalesce(sum(last-front), 0) - (SELECT coalesce(sum(count), 0) FROM gone) FROM queues");
  }
  std::string AnyFile(const std::function<bool(const std::string&)>& is) const {
    const auto isIt = [&](const fs::directory_entry& entry) { return is(ReadFile(entry.path())); };
    return std::ranges::any_of(fs::directory_iterator(options.folder), isIt) ? "yes" : "no";
  }
  std::string Files(const std::string& part) const {
    Strings names;
    for (const auto& entry : fs::directory_iterator(options.folder)) {
      const std::string name = entry.path().filename().string();
      if (name.find(part) != name.npos) names.push_back(name);
      EXPECT_TRUE(IsPrivate(entry.path())) << name;
    }
    std::ranges::sort(names);
    return Shown(names);
  }
  std::string List() const {
    Strings queues;
    for (const host::QueueInfo& queue : service->ListQueues())
      queues.push_back(queue.name + " " + std::to_string(queue.items) + " for " +
                       std::to_string(queue.oldestAgeMs.value_or(-1)) + " ms");
    return Shown(queues);
  }
  // Without what differs between runs and versions of SQLite.
  std::string Plain(std::string text) const {
    if (const auto open = text.find('('); open != text.npos) text.erase(open - 1, text.rfind(')') - open + 2);
    std::ranges::replace(text, '\\', '/');
    const std::string path = options.folder.generic_string();
    for (std::size_t at; (at = text.find(path)) != text.npos;) text.replace(at, path.size(), "FOLDER");
    return text;
  }
  Strings Traced() {
    Strings lines = lines_.Take();
    for (std::string& line : lines) line = Plain(line.substr(line.find('\t') + 1)) + ";";
    return lines;
  }

  std::map<std::string, zel::Ref<host::QueueService>> services_;
  const std::shared_ptr<FakePacer> pacer_ = std::make_shared<FakePacer>();
  TracedLines lines_;
  std::uint64_t lastToken_ = 0;  // of what was filled in
  std::string spoiled_;          // the store's file when it was checked
  std::string opened_;           // what its mark said while it was open
  std::shared_ptr<ManualMachine> machine_ = std::make_shared<ManualMachine>();
  int count_ = 0;
};

TEST_F(StoreCourses, EachIsTaken) {
  for (const char* kind : {"/contract", "/store"}) RunAll(VELD_COURSES + std::string(kind));
}

}  // namespace
}  // namespace veld_report::tests
