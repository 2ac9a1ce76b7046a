// A store whose file and log have been changed: bytes flipped, ranges wiped or moved, ends cut. Opening it
// has to work or to be refused with a sentence, and what opens has to be a working store.
//
// What is promised depends on where the damage is. In the log every frame has a checksum, so what comes back
// is exactly what stood there after one of the calls. In the file every item has one, so each comes back byte
// for byte, in its order, or not at all.
#include <fstream>
#include <set>
#include <vector>

#include "fuzz/input.h"
#include "host/queue/queue_service.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace {

using namespace veld_report::tests;
using veld_report::fuzz::Input;
using veld_report::fuzz::Require;
using veld_report::host::QueueService;
namespace fs = std::filesystem;

// Operations on a service. What they expect ends the run if it isn't so.
class Store : public QueueOperations {
 public:
  explicit Store(zel::Ref<QueueService> opened) : service(std::move(opened)) {}
  using QueueOperations::Producer, QueueOperations::Reader, QueueOperations::Push, QueueOperations::Waiting;

  const zel::Ref<QueueService> service;

 private:
  orvel::IQueueFactory& Factory() override { return *service; }
};

// The two files as a killed process leaves them: most in the file, the last changes in the log.
struct Prepared {
  TemporaryFolder folder;
  std::string file, log;
  std::vector<StoreModel> states;  // after each call whose change stands in the log
  std::set<std::string> texts;     // of all items

  Prepared() {
    testing::GTEST_FLAG(throw_on_failure) = true;
    const veld_report::host::QueueServiceOptions options{.folder = folder.Path()};
    StoreModel model;
    const auto push = [&](Store& store, std::size_t from, std::size_t count) {
      for (std::size_t i = from; i < from + count; ++i) {
        const std::string queue = i % 2 == 0 ? "alpha" : "beta";
        // Some larger than a page, so that there are overflow pages.
        const std::string text =
            Numbered(i) + std::string(i % 9 == 0 ? 5000 : 60 + i, static_cast<char>('a' + i % 26));
        texts.insert(text);
        model.Pushed(queue, text, PushText(*store.Producer(queue), text));
        states.push_back(model);
      }
    };
    {
      Store store(QueueService::Open(options));
      push(store, 0, 40);
    }
    states = {model};
    Store store(QueueService::Open(options));
    push(store, 40, 10);
    const auto reader = store.Reader("alpha");
    for (int i = 0; i < 3; ++i) {
      model.Visit("alpha", *reader, 1, [](std::size_t) { return Fate::acknowledged; });
      states.push_back(model);
    }
    store.service->Commit();
    push(store, 50, 5);
    store.service->Commit();
    file = ReadFile(folder.Path() / "veld_rep.queue");
    log = ReadFile(folder.Path() / "veld_rep.queue-wal");
    Require(!file.empty() && !log.empty(), "the preparation");
    Require(StoreModel::Of(*store.service) == model, "the preparation's model");
  }
};

void Change(Input& in, std::string* bytes) {
  if (bytes->empty()) return;
  // Mostly near a page's start, where its structure is; the rest is items.
  const std::size_t page = in.Below(bytes->size() / 4096 + 1) * 4096;
  const std::size_t at =
      std::min(page + (in.OneIn(4) ? in.Number(2) % 4096 : in.Below(128)), bytes->size() - 1);
  const std::size_t count = std::min(in.Below(64) * (in.OneIn(4) ? 128 : 1) + 1, bytes->size() - at);
  const std::size_t kind = in.Below(6);
  if (kind < 2) (*bytes)[at] = static_cast<char>(in.Byte());
  if (kind == 2) (*bytes)[at] = static_cast<char>((*bytes)[at] ^ 1 << in.Below(8));
  if (kind == 3) bytes->replace(at, count, count, static_cast<char>(in.Byte()));
  if (kind == 4) bytes->replace(at, count, bytes->substr(in.Number(3) % bytes->size(), count));
  if (kind == 5) bytes->resize(in.OneIn(4) ? 0 : at);
}

zel::Ref<QueueService> Open(const fs::path& folder) {
  try {
    return QueueService::Open({.folder = folder});
  } catch (const veld_report::host::StoreError& error) {
    Require(std::string_view(error.what()).find(folder.string()) != std::string_view::npos,
            "a refusal doesn't say which store");
    return {};
  }
}

// Empties every queue. Of a sound store nothing is left then, and a new item is the newest.
void RequireWorking(Store& store, bool sound, const std::set<std::string>& texts) {
  std::uint64_t last = 0;
  for (const auto& info : store.service->ListQueues()) {
    store.service->PeekItems(info.name, 3);
    std::uint64_t before = 0;
    const auto reader = store.Reader(info.name);
    for (const auto& item : ReadAll(*reader, 1000)) {
      Require(item.token > before, "tokens out of order");
      Require(texts.contains(item.bytes), "an item comes out as it never went in");
      last = std::max(last, before = item.token);
      Require(reader->Ack(&item.token) == zel::sOk || !sound, "Ack of a sound store fails");
    }
    store.service->Commit();
    // What is damaged beyond reading fails with another code.
    zel::vector_t<std::uint8_t> data;
    std::uint64_t token = 0;
    Require(store.Reader(info.name)->Read(&data, &token) != zel::eNotFound ||
                store.service->Ledgers()[info.name].waiting.items == 0,
            "something waits that isn't handed out");
  }
  if (!sound) return;
  store.Push("fresh", "new");
  const auto item = ReadOne(*store.Reader("fresh"));
  Require(item && item->bytes == "new" && item->token > last, "a new item doesn't come back as the newest");
  Require(StoreModel::Of(*store.service).Items("fresh") == Strings{"new"}, "figures without balance");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Prepared prepared;
  static const TemporaryFolder work;
  Input in(data, size);
  std::string file = prepared.file, log = prepared.log;
  const bool logOnly = in.OneIn(2);
  for (int i = 0; i < 16 && !in.Empty(); ++i) Change(in, logOnly || in.OneIn(4) ? &log : &file);

  const fs::path folder = work.Path() / "store";
  fs::create_directory(folder);
  std::ofstream(folder / "veld_rep.queue", std::ios::binary) << file;
  std::ofstream(folder / "veld_rep.queue-wal", std::ios::binary) << log;
  if (auto opened = Open(folder)) {
    Store store(std::move(opened));
    Require(!logOnly || std::ranges::count(prepared.states, StoreModel::Of(*store.service)) != 0,
            "it holds what no call left");
    RequireWorking(store, logOnly, prepared.texts);
  } else {
    Require(!logOnly, "damage in the log alone is refused");
  }
  // What was acknowledged is gone, and what was repaired stays sound.
  if (const auto again = Open(folder); again && logOnly) {
    Require(again->TotalWaiting().items == 1, "an acknowledged item is back, or the new one is lost");
  }
  fs::remove_all(folder);
  return 0;
}
