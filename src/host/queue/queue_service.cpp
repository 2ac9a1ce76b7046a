#include "host/queue/queue_service.h"

#include <utility>

#include "host/base/text.h"
#include "host/base/write_trace.h"
#include "host/platform/paths.h"
#include "host/queue/store_maintenance.h"
#include "host/queue/store_upgrade.h"

namespace veld_report::host {
namespace {

class Producer final : public HostObject<orvel::IQueueProducer> {
 public:
  Producer(std::shared_ptr<QueueStore> store, QueueState& queue, std::uint32_t sizeLimitBytes)
      : store_(std::move(store)), queue_(queue), sizeLimitBytes_(sizeLimitBytes) {}
  ~Producer() override {
    Guarded([&] { return store_->Commit() ? zel::sOk : zel::eNotReady; });
  }

  zel::ResultCode Push(const zel::ByteRange* data) override {
    if (!data || data->end < data->begin) return zel::eInvalidArgument;
    return Guarded([&] { return store_->Push(queue_, {data->begin, data->end}, sizeLimitBytes_); });
  }

 private:
  const std::shared_ptr<QueueStore> store_;
  QueueState& queue_;
  const std::uint32_t sizeLimitBytes_;
};

// Life: open -> reading -> exhausted. Its claims end with it.
class Reader final : public HostObject<orvel::IAckConsumer> {
 public:
  Reader(std::shared_ptr<QueueStore> store, const std::string& queueName) : store_(std::move(store)) {
    store_->OpenReader(queueName, &state_);
  }
  ~Reader() override {
    Guarded([&] {
      store_->CloseReader(state_);
      return zel::sOk;
    });
  }

  zel::ResultCode Read(zel::vector_t<std::uint8_t>* data, std::uint64_t* token) override {
    return Guarded([&] { return store_->Read(state_, data, token); });
  }
  zel::ResultCode Ack(const std::uint64_t* token) override {
    return Guarded([&] { return store_->Ack(state_, *token); });
  }
  zel::ResultCode ReturnItem(const std::uint64_t* token) override {
    return Guarded([&] { return store_->ReturnItem(state_, *token); });
  }

 private:
  const std::shared_ptr<QueueStore> store_;
  ReaderState state_;
};

class Manager final : public HostObject<orvel::IQueueManager> {
 public:
  explicit Manager(std::shared_ptr<QueueStore> store) : store_(std::move(store)) {}

  zel::ResultCode RemoveQueue(const zel::string& queueName) override {
    return Guarded([&] { return store_->RemoveQueue(ToStd(queueName)); });
  }
  zel::ResultCode EnumerateQueues(zel::vector_t<zel::string>* names) override {
    return Guarded([&] {
      for (const std::string& name : store_->QueueNames()) names->push_back(ToNarrow(name));
      return zel::sOk;
    });
  }

 private:
  const std::shared_ptr<QueueStore> store_;
};

std::shared_ptr<FileLock> LockFolder(const QueueServiceOptions& options) {
  if (options.inspectOnly) return std::make_shared<FileLock>();
  const auto kind = options.shared ? FileLock::Kind::shared : FileLock::Kind::exclusive;
  return std::make_shared<FileLock>(LockStoreFolder(options.folder, kind));
}

}  // namespace

zel::Ref<QueueService> QueueService::Open(const QueueServiceOptions& given) {
  if (given.folder.empty()) throw StoreError("no folder for the store is given; name one");
  QueueServiceOptions options = given;
  // The process may change its working folder while the store is open.
  options.folder = AbsolutePath(given.folder);
  if (!options.folder.has_filename()) options.folder = options.folder.parent_path();
  if (!options.inspectOnly) PrepareStoreFolder(options.folder);
  if (!IsFolder(options.folder)) {
    throw StoreError("there is no folder " + Utf8(options.folder) + "; name the folder of the store");
  }
  RefuseInheritedStore(options.folder);
  auto service = MakeObject<QueueService>(options, LockFolder(options));
  for (const std::string& domain : StoredDomains(options.folder)) service->Store(domain);
  return service;
}

QueueService::QueueService(const QueueServiceOptions& options, std::shared_ptr<FileLock> folderLock)
    : options_(options), folderLock_(std::move(folderLock)) {}

std::shared_ptr<QueueStore> QueueService::Store(const std::string& domain) {
  if (!IsSafeDomainName(domain)) {
    throw StoreError("\"" + domain +
                     "\" isn't a valid queue domain; use 1 to 64 characters of A-Z a-z 0-9 _ -");
  }
  const std::lock_guard lock(mutex_);
  std::shared_ptr<QueueStore>& store = stores_[domain];
  if (!store) {
    const auto file = StoreFilePath(options_.folder, domain);
    try {
      store = std::make_shared<QueueStore>(options_, file, folderLock_);
    } catch (const SqliteError& error) {
      throw StoreError(std::string("the store can't be opened: ") + error.what() +
                       "; make sure that the disk has room, and look for damage with veldrep store check");
    }
  }
  return store;
}

template <class Body>
zel::ResultCode QueueService::WithStore(const zel::string& domain, bool needsWriting, Body&& body) {
  return Guarded([&] {
    if (!IsSafeDomainName(View(domain))) return zel::eInvalidArgument;
    if (options_.inspectOnly && needsWriting) return zel::eNotSupported;
    try {
      body(Store(ToStd(domain)));
    } catch (const std::runtime_error& error) {
      WriteTrace(options_.tracer.Get(), failureLevel, std::string("store\t") + error.what());
      return zel::eUnspecifiedError;
    }
    return zel::sOk;
  });
}

zel::ResultCode QueueService::CreateAckConsumer(const zel::string& domain, const zel::string& queueName,
                                                orvel::IAckConsumer** out) {
  return WithStore(domain, true, [&](std::shared_ptr<QueueStore> store) {
    *out = MakeObject<Reader>(std::move(store), ToStd(queueName)).Detach();
  });
}

zel::ResultCode QueueService::CreateProducer(const zel::string& domain, const zel::string& queueName,
                                             std::uint32_t sizeLimitBytes, orvel::IQueueProducer** out) {
  return WithStore(domain, true, [&](std::shared_ptr<QueueStore> store) {
    QueueState& queue = store->OpenQueue(ToStd(queueName));
    *out = MakeObject<Producer>(std::move(store), queue, sizeLimitBytes).Detach();
  });
}

zel::ResultCode QueueService::CreateQueueManager(const zel::string& domain, orvel::IQueueManager** out) {
  return WithStore(domain, false, [&](std::shared_ptr<QueueStore> store) {
    *out = MakeObject<Manager>(std::move(store)).Detach();
  });
}

std::vector<QueueInfo> QueueService::ListQueues(const std::string& domain) {
  return Store(domain)->ListQueues();
}

std::vector<PeekedItem> QueueService::PeekItems(const std::string& queueName, std::size_t count,
                                                const std::string& domain) {
  return Store(domain)->Peek(queueName, count);
}

std::map<std::string, std::uint64_t> QueueService::LastTokens(const std::string& domain) {
  return Store(domain)->LastTokens();
}

ItemCount QueueService::TotalWaiting(const std::string& domain) { return Store(domain)->TotalWaiting(); }

std::map<std::string, QueueLedger> QueueService::Ledgers(const std::string& domain) {
  return Store(domain)->Ledgers();
}

bool QueueService::ClearQueue(const std::string& queueName, const std::string& domain) {
  RequireWritable();
  const auto store = Store(domain);
  if (store->RemoveQueue(queueName) != zel::sOk) return false;
  Compact(*store, false);
  return true;
}

void QueueService::Forget(const std::string& domain) {
  RequireWritable();
  const auto store = Store(domain);
  for (const std::string& name : store->QueueNames()) store->RemoveQueue(name);
  const auto file = StoreFilePath(options_.folder, domain);
  for (const auto& damaged : DamagedFilesOf(file)) DeleteDamagedFile(damaged);
  RemoveTracesOfUpgrades(file);
  Compact(*store, true);
}

// A service that only inspects can't empty a store that others write.
void QueueService::RequireWritable() const {
  if (options_.inspectOnly) throw StoreError("the store was opened for inspection only; open it for writing");
}

void QueueService::Compact(QueueStore& store, bool rebuild) {
  try {
    if (store.Compact(rebuild)) return;
  } catch (const SqliteError& error) {
    throw StoreError(std::string("what was removed may still be readable: ") + error.what() +
                     "; make room on the disk and try again");
  }
  throw StoreError("the store can't be written; make room on its disk and try again");
}

std::string QueueService::WhyPushWaits(const std::string& domain) { return Store(domain)->WhyPushWaits(); }

void QueueService::StopWaiting() {
  const std::lock_guard lock(mutex_);
  for (const auto& [domain, store] : stores_) {
    if (store) store->StopWaiting();
  }
}

bool QueueService::EndPushes(const std::string& domain) { return Store(domain)->EndPushes(); }

bool QueueService::Commit(const std::string& domain) { return Store(domain)->Commit(); }

}  // namespace veld_report::host
