// Your own host: every service that the module needs, written against contract/ alone.
//
//   own_host MODULE URL TEXT...
//
// submits each TEXT as one record, waits up to ten seconds until all of them are delivered, and prints what
// became of them. The exit code is 0 if nothing is left.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "counted.h"
#include "http_client.h"
#include "json.h"
#include "memory_queues.h"
#include "timer.h"
#include "veld_report/contract/exports.h"
#include "veld_report/contract/hash.h"
#include "veld_report/contract/sender.h"
#include "veld_report/contract/tracer.h"

namespace own_host {
namespace {

using orvel::veld_report::IVeldReportSender;
using orvel::veld_report::IVeldReportSenderConstruct;

class HeapAllocator final : public Counted<zel::IAllocator> {
 public:
  void* Allocate(std::uint64_t size) override { return std::malloc(size); }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override { std::free(memory); }
};

// Prints lines up to a level. The buffers are plain heap blocks.
class StderrTracer final : public Counted<zel::ITracer> {
 public:
  explicit StderrTracer(std::uint32_t level) : level_(level) {}
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    const bool grow = level == growLevel;
    if (!grow && level > level_) return zel::sFalse;
    void* const memory = std::realloc(grow ? *buffer : nullptr, size);
    if (!memory) return zel::eOutOfMemory;
    *buffer = static_cast<char*>(memory);
    return zel::sOk;
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(length), buffer);
    std::free(buffer);
    return zel::sOk;
  }

 private:
  const std::uint32_t level_;
};

// A digest of 16 bytes, two passes of FNV-1a. Any hash that is stable from run to run will do.
class Hash final : public Counted<crypto::hash::IHashCalculator> {
 public:
  zel::ResultCode ReservedHashOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode Update(const zel::ByteRange* bytes) override {
    for (const std::uint8_t* byte = bytes->begin; byte != bytes->end; ++byte) {
      for (std::uint64_t& half : halves_) half = (half ^ *byte) * 0x100000001b3;
    }
    return zel::sOk;
  }
  zel::ResultCode ReservedHashOperation2() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedHashOperation3() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedHashOperation4() override { return zel::eNotImplemented; }
  zel::ResultCode Finish(std::uint8_t* digest) override {
    for (int i = 0; i < 16; ++i) digest[i] = static_cast<std::uint8_t>(halves_[i / 8] >> (8 * (i % 8)));
    return zel::sOk;
  }

 private:
  std::uint64_t halves_[2] = {0xcbf29ce484222325, 0x9ae16a3b2f90404f};
};

class HashFactory final : public Counted<crypto::hash::IHashCalculatorFactory> {
 public:
  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override {
    if (algorithm != queueNameAlgorithm) return zel::eNotSupported;
    *out = Make<Hash>().Detach();
    return zel::sOk;
  }
};

// The directory of services: each id has a function that returns a reference.
class Locator final : public Counted<zel::IServiceLocator> {
 public:
  template <class Interface, class Service>
  void Register(const zel::Ref<Service>& service) {
    services_[Interface::iid] = [service](void** out) { *out = zel::Ref<Interface>(service).Detach(); };
  }
  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t, void** out) override {
    *out = nullptr;
    const auto service = services_.find(interfaceId);
    if (service == services_.end()) return zel::eInterfaceNotSupported;
    service->second(out);
    return zel::sOk;
  }

 private:
  std::map<zel::InterfaceId, std::function<void(void**)>> services_;
};

// The records of this host: one text. The serialiser walks the table; the module only reads serId.
struct Note {
  zel::string text;
};
const zel::SerFieldDescriptor noteFields[] = {{.typeId = zel::SerFieldDescriptor::narrowString,
                                               .name = "text",
                                               .offset = offsetof(Note, text),
                                               .size = sizeof(zel::string)},
                                              {.flags = zel::SerFieldDescriptor::endOfTable}};
const zel::SerObjDescriptor noteDescriptor{
    .serId = 0x10e07e57, .name = "Note", .size = sizeof(Note), .fields = noteFields};

void Check(zel::ResultCode code, const char* what) {
  if (!zel::Failed(code)) return;
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(code));
  throw std::runtime_error(std::string(what) + ": " + text);
}

// The loaded module.
class Module {
 public:
  explicit Module(const char* path) : handle_(::dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (!handle_) throw std::runtime_error(::dlerror());
  }
  ~Module() {
    // Objects of the module may outlive the sender. While one does, the code must stay.
    if (Find<orvel::veld_report::CanUnloadModuleFunction>(orvel::veld_report::canUnloadModuleName)() == 0) {
      ::dlclose(handle_);
    }
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  zel::Ref<IVeldReportSenderConstruct> CreateSender(zel::IServiceLocator* locator) const {
    const auto makeFactory =
        Find<orvel::veld_report::GetObjectFactoryFunction>(orvel::veld_report::getObjectFactoryName);
    zel::Ref<zel::IObject> object;
    Check(makeFactory(locator, orvel::veld_report::senderClassId, object.Out()), "zelGetObjectFactory");
    zel::Ref<zel::IObjectFactory> factory;
    Check(object->QueryInterface(zel::IObjectFactory::iid, factory.OutVoid()), "QueryInterface");
    zel::Ref<IVeldReportSenderConstruct> sender;
    Check(factory->CreateInstance(locator, IVeldReportSenderConstruct::iid, sender.OutVoid()),
          "CreateInstance");
    return sender;
  }

 private:
  template <class Function>
  Function* Find(const char* name) const {
    void* const symbol = ::dlsym(handle_, name);
    if (!symbol) throw std::runtime_error(::dlerror());
    return reinterpret_cast<Function*>(symbol);
  }

  void* handle_;
};

std::size_t Deliver(const Module& module, const std::string& url, char** texts) {
  const auto queues = Make<MemoryQueues>();
  const auto timer = Make<Timer>();
  const auto locator = Make<Locator>();
  locator->Register<zel::IAllocator>(Make<HeapAllocator>());
  locator->Register<zel::ITracer>(Make<StderrTracer>(300u));
  locator->Register<crypto::hash::IHashCalculatorFactory>(Make<HashFactory>());
  locator->Register<orvel::IQueueFactory>(queues);
  locator->Register<network_services::IHttpClientFactory>(Make<HttpClientFactory>());
  locator->Register<zel::ITimerService>(timer);
  locator->Register<zel::IJsonStorageFactory>(Make<JsonStorageFactory>());
  locator->Register<zel::IStorageSerializer2>(Make<Serializer>());

  const auto construct = module.CreateSender(locator.Get());
  orvel::veld_report::SenderSettings settings;
  settings.urls.append(1);
  settings.urls.first->url = zel::wstring(std::u16string(url.begin(), url.end()));
  settings.packetLimit = 100;
  settings.queueLimit = 1024;
  Check(construct->Construct(settings), "Construct");

  zel::Ref<IVeldReportSender> sender;
  Check(construct->QueryInterface(IVeldReportSender::iid, sender.OutVoid()), "QueryInterface");
  std::size_t submitted = 0;
  for (; *texts; ++texts, ++submitted) {
    Note note{zel::string(*texts)};
    Check(sender->SendStatistic(zel::AnyPtr(&note, &noteDescriptor)), "SendStatistic");
  }

  // A second after the first submission, a cycle moves the records into the queue and sends them.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  MemoryQueues::Counts counts = queues->Count();
  while (counts.accepted < submitted || counts.waiting != 0) {
    if (std::chrono::steady_clock::now() > deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    counts = queues->Count();
  }
  const std::size_t delivered = counts.accepted - counts.waiting;
  std::printf("submitted %zu, delivered %zu\n", submitted, delivered);
  return submitted - delivered;
}

}  // namespace
}  // namespace own_host

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: own_host MODULE URL TEXT...\n");
    return 2;
  }
  try {
    const own_host::Module module(argv[1]);
    return own_host::Deliver(module, argv[2], argv + 3) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "own_host: %s\n", error.what());
    return 1;
  }
}
