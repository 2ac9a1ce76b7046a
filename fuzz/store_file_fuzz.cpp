// A store whose file and log have been changed: bytes flipped, ranges wiped or moved, ends cut. Opening it
// has to work or to be refused with a sentence, and what opens has to be a working store.
//
// What is promised depends on where the damage is. In the log every frame has a checksum, so what comes back
// is exactly what stood there, up to some commit. The file has none, so a change inside an item's bytes goes
// unnoticed and the item comes back changed; only its order, its token and the figures' balance can be asked.
#include <set>
#include <vector>

#include "fuzz/input.h"
#include "host/queue/queue_service.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/queue_items.h"

namespace {

using veld_report::fuzz::Input;
using veld_report::fuzz::Require;
using veld_report::host::QueueService;
using veld_report::tests::PushText;
using veld_report::tests::ReadAll;
using veld_report::tests::ReadFile;
namespace fs = std::filesystem;

constexpr const char* names[] = {"alpha", "beta"};
constexpr std::size_t most = 1000;

zel::Ref<orvel::IQueueProducer> Producer(QueueService& service, const std::string& queue) {
  zel::Ref<orvel::IQueueProducer> made;
  const auto code = service.CreateProducer(zel::string("veld_rep"), zel::string(queue), 1 << 28, made.Out());
  Require(code == zel::sOk, "no producer");
  return made;
}
zel::Ref<orvel::IAckConsumer> Reader(QueueService& service, const std::string& queue) {
  zel::Ref<orvel::IAckConsumer> made;
  const auto code = service.CreateAckConsumer(zel::string("veld_rep"), zel::string(queue), made.Out());
  Require(code == zel::sOk, "no reader");
  return made;
}

// The two files as a killed process leaves them: most in the file, the last changes in the log.
struct Prepared {
  veld_report::tests::TemporaryFolder folder;
  std::string file, log;
  std::set<std::string> items;

  Prepared() {
    const veld_report::host::QueueServiceOptions options{.folder = folder.Path()};
    const auto push = [&](QueueService& service, std::size_t from, std::size_t count) {
      for (std::size_t i = from; i < from + count; ++i) {
        // Some larger than a page, so that there are overflow pages.
        const std::string text =
            std::to_string(i) + std::string(i % 9 == 0 ? 5000 : 60 + i, static_cast<char>('a' + i % 26));
        items.insert(text);
        Require(PushText(*Producer(service, names[i % 2]), text) == zel::sOk, "Push of the preparation");
      }
    };
    push(*QueueService::Open(options), 0, 40);
    const auto service = QueueService::Open(options);
    push(*service, 40, 10);
    const auto reader = Reader(*service, names[0]);
    for (const auto& item : ReadAll(*reader, 3)) reader->Ack(&item.token);
    service->Commit();
    push(*service, 50, 5);
    service->Commit();
    file = ReadFile(folder.Path() / "veld_rep.queue");
    log = ReadFile(folder.Path() / "veld_rep.queue-wal");
    Require(!file.empty() && !log.empty(), "the preparation");
  }
};

void Change(Input& in, std::string* bytes) {
  if (bytes->empty()) return;
  // Mostly near a page's start, where its structure is; the rest is items.
  const std::size_t page = in.Below(bytes->size() / 4096 + 1) * 4096;
  const std::size_t at =
      std::min(page + (in.OneIn(4) ? in.Number(2) % 4096 : in.Below(128)), bytes->size() - 1);
  const std::size_t count = std::min(in.Below(64) * (in.OneIn(4) ? 128 : 1) + 1, bytes->size() - at);
  switch (in.Below(6)) {
    case 0:
    case 1:
      (*bytes)[at] = static_cast<char>(in.Byte());
      break;
    case 2:
      (*bytes)[at] = static_cast<char>((*bytes)[at] ^ 1 << in.Below(8));
      break;
    case 3:
      bytes->replace(at, count, count, static_cast<char>(in.Byte()));
      break;
    case 4:
      bytes->replace(at, count, bytes->substr(in.Number(3) % bytes->size(), count));
      break;
    default:
      bytes->resize(in.OneIn(4) ? 0 : at);
  }
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

void RequireWorking(QueueService& service, const std::set<std::string>& items, bool exact) {
  std::set<std::string> seen;
  std::uint64_t last = 0;
  std::vector<std::string> queues;
  for (const auto& info : service.ListQueues()) queues.push_back(info.name);
  for (const auto& queue : queues) {
    service.PeekItems(queue, 3);
    const auto reader = Reader(service, queue);
    std::uint64_t before = 0;
    for (const auto& item : ReadAll(*reader, most)) {
      Require(item.token > before, "tokens out of order");
      before = item.token;
      if (exact) Require(items.contains(item.bytes), "an item that nobody has pushed");
      if (exact) Require(seen.insert(item.bytes).second, "an item came twice");
      Require(zel::Failed(reader->Ack(&item.token)) == false || !exact, "Ack of a sound store fails");
    }
    last = std::max(last, before);
  }
  service.Commit();
  for (const auto& queue : queues) {
    // What is damaged beyond reading fails with another code.
    zel::vector_t<std::uint8_t> data;
    std::uint64_t token = 0;
    if (Reader(service, queue)->Read(&data, &token) != zel::eNotFound) continue;
    Require(service.Ledgers()[queue].waiting.items == 0, "something waits that isn't handed out");
  }
  if (!exact) return;
  for (const auto& [name, ledger] : service.Ledgers())
    Require(ledger.IsBalanced(), "a ledger without balance");
  Require(PushText(*Producer(service, "fresh"), "new") == zel::sOk, "Push after damage fails");
  const auto item = veld_report::tests::ReadOne(*Reader(service, "fresh"));
  Require(item && item->bytes == "new" && item->token > last, "a new item doesn't come back as the newest");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Prepared prepared;
  static const veld_report::tests::TemporaryFolder work;
  Input in(data, size);
  std::string file = prepared.file, log = prepared.log;
  const bool logOnly = in.OneIn(2);
  for (int i = 0; i < 16 && !in.Empty(); ++i) Change(in, logOnly || in.OneIn(4) ? &log : &file);

  const fs::path folder = work.Path() / "store";
  fs::create_directory(folder);
  std::ofstream(folder / "veld_rep.queue", std::ios::binary) << file;
  std::ofstream(folder / "veld_rep.queue-wal", std::ios::binary) << log;
  {
    const auto service = Open(folder);
    if (service) RequireWorking(*service, prepared.items, logOnly);
    Require(service || !logOnly, "damage in the log alone is refused");
  }
  // What was acknowledged is gone, and what was repaired stays sound.
  if (const auto again = Open(folder); again && logOnly) {
    Require(again->TotalWaiting().items == 1, "an acknowledged item is back, or the new one is lost");
  }
  fs::remove_all(folder);
  return 0;
}
