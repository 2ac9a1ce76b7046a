// The courses of the queue service on SQLite.
#include <future>

#include "host/queue/sqlite_connection.h"
#include "tests/host/queue_course.h"
#include "tests/host/queue_test_tools.h"

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
    now_ = 1'000'000;
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
    if (verb == "crash") return Crash();
    if (verb == "overwrite") return EndServices(), WriteFile(StorePath(), Whole(name)), "";
    if (verb == "sql") {
      EndServices();
      return SqliteConnection(StorePath(), SqliteConnection::Access::readWrite).Execute(Shown(words)), "";
    }
    if (verb == "query") return Query(name, Shown(more));
    if (verb == "committed") return Committed();
    if (verb == "soon") return Eventually([&] { return Committed() == name; }) ? "" : Committed();
    if (verb == "files") return Files(name);
    if (verb == "holds") return Holds(Whole(name)) ? "yes" : "no";
    if (verb == "findings") return EndServices(), Shown(Findings());
    if (verb == "traced") return Shown(Traced());
    if (verb == "ledger") return testing::PrintToString(Ledger(name));
    if (verb == "list") return List();
    if (verb == "peek") return service->PeekItems(name, 1).at(0).bytes;
    if (verb == "clear") return service->ClearQueue(name) ? "" : "no queue";
    if (verb == "forget") return service->Forget(), "";
    if (verb == "commit") return service->Commit() ? "" : "failed";
    if (verb == "paced") return Shown(std::exchange(pacer_->calls, {}));
    if (verb == "advance") return now_ += std::stoll(name), "";
    return QueueCourses::Do(verb, words);
  }

 private:
  void EndServices() {
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
    options = {.folder = options.folder, .tracer = lines_.tracer, .nowMs = [this] { return now_; }};
    options.shared = has("shared");
    options.inspectOnly = has("looking");
    if (has("aged")) options.maxAge = std::chrono::seconds(60);
    if (has("limited")) options.storeLimitBytes = 20;
    if (has("paced")) options.pacer = pacer_;
    if (has("grouped")) {
      options.commitOperations = 8;
      options.commitDelay = std::chrono::hours(1);
    }
    service.Reset();
    services_.erase(name);
    try {
      services_[name] = service = host::QueueService::Open(options);
    } catch (const host::StoreError& error) {
      return Plain(error.what());
    }
    return "";
  }
  // What isn't checkpointed stands in the log alone.
  std::string Crash() {
    const fs::path from = options.folder, to = folder.Path() / "crashed";
    fs::create_directory(to);
    for (const char* name : {"veld_rep.queue", "veld_rep.queue-wal"}) fs::copy_file(from / name, to / name);
    EnterNewFolder();
    fs::rename(to, options.folder);
    return "";
  }
  // A connection of its own sees what a crash would leave.
  std::string Query(const std::string& name, const std::string& statement) const {
    return std::to_string(
        SqliteConnection(options.folder / name, SqliteConnection::Access::read).QueryInteger(statement));
  }
  std::string Committed() const { return Query("veld_rep.queue", "SELECT count(*) FROM items"); }
  bool Holds(const std::string& text) const {
    return std::ranges::any_of(fs::directory_iterator(options.folder), [&](const fs::directory_entry& entry) {
      return ReadFile(entry.path()).find(text) != std::string::npos;
    });
  }
  std::string Files(const std::string& part) const {
    Strings names;
    for (const auto& entry : fs::directory_iterator(options.folder)) {
      const std::string name = entry.path().filename();
      if (name.find(part) != name.npos) names.push_back(name);
      EXPECT_EQ(entry.status().permissions(), fs::perms(0600)) << name;
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
  // Without what differs between runs.
  std::string Plain(std::string text) const {
    const std::string path = options.folder;
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
  std::int64_t now_ = 0;
  int count_ = 0;
};

TEST_F(StoreCourses, EachIsTaken) {
  for (const char* kind : {"/contract", "/store"}) RunAll(VELD_COURSES + std::string(kind));
}

}  // namespace
}  // namespace veld_report::tests
