#include "tests/world/services.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "contract/execution_mode.h"
#include "contract/hash.h"
#include "contract/requests_notification.h"
#include "contract/service_locator.h"
#include "contract/signature.h"
#include "contract/timer.h"
#include "contract/tracer.h"
#include "tests/world/client.h"
#include "types/allocator.h"

namespace veld_report::world {
namespace {

constexpr std::uint32_t normalLevel = 700;
constexpr std::uint64_t blockOut = 0x6b636f6c42747541;

std::uint64_t NumberAfter(std::string_view line, std::string_view words) {
  std::uint64_t number = 0;
  const std::size_t place = line.find(words) + words.size();
  std::from_chars(line.data() + place, line.data() + line.size(), number);
  return number;
}

class HostAllocator final : public Fake<zel::IAllocator> {
 public:
  using Fake::Fake;
  void* Allocate(std::uint64_t size) override {
    const Outside outside;
    Use();
    if (Locks::Held() > 1) host.Fail(invariant::locks, "an allocation with more than one lock held");
    if (host.failBlock > 0 && --host.failBlock == 0) {
      ++host.troubles;
      host.withoutCallback = true;
      host.Excuse();
      return nullptr;
    }
    auto* block = static_cast<std::uint64_t*>(std::malloc(size + 16));
    block[0] = blockOut;
    ++host.blocks;
    std::memset(block + 2, 0xcd, size);
    return block + 2;
  }
  zel::ResultCode ReservedAllocatorOperation() override { return Reserved(); }
  void Free(void* memory) override {
    const Outside outside;
    Use();
    auto* block = static_cast<std::uint64_t*>(memory) - 2;
    if (block[0] != blockOut) return host.Fail(invariant::balance, "Free of a block that isn't out");
    block[0] = 0;
    --host.blocks;
    std::free(block);
    if (host.missing & cleanUpThrows) throw Scripted();
  }
};

class Tracer final : public Fake<zel::ITracer> {
 public:
  using Fake::Fake;
  zel::ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) override {
    if (!host.trace || size > buffer_.size()) return 1;
    auto call = Begin(Op::acquireBuffer, 0);
    if (call.Planned() == 0 && level != growLevel) {
      *buffer = buffer_.data();
      level_ = level;
    }
    return call.Planned();
  }
  zel::ResultCode CommitBuffer(char* buffer, std::uint64_t length) override {
    auto call = Begin(Op::commitBuffer, 0);
    std::string_view line(buffer, length);
    if (line.starts_with("veld_rep\t")) {
      line.remove_prefix(9);
    } else if (!line.starts_with("Exception during object construction: ")) {
      host.Fail(invariant::calls, "a trace line without its tag");
    }
    if (host.course)
      host.Show(std::to_string(level_) + " \"" + std::string(line) + "\"", level_ == normalLevel);
    if (line.find("Can not create callback") != line.npos) host.withoutCallback = true;
    if (line.find("Not all data were sent.") != line.npos) {
      host.Append({.op = Op::totals,
                   .a = NumberAfter(line, "NeedToSend size = "),
                   .b = NumberAfter(line, "Sended size = ")});
    } else if (line.find("Threre are no more data to send.") != line.npos) {
      host.Append({.op = Op::totals});
    }
    return call.Planned();
  }

 private:
  std::vector<char> buffer_ = std::vector<char>(1 << 16);
  std::uint32_t level_ = 0;
};

class Calculator final : public Fake<crypto::hash::IHashCalculator> {
 public:
  using Fake::Fake;
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    auto call = Begin(Op::queryCalculator, 0);
    *out = nullptr;
    return call.Done(call.Refused() ? call.Planned() : Fake::QueryInterface(interfaceId, out));
  }
  zel::ResultCode ReservedHashOperation0() override { return Reserved(); }
  zel::ResultCode Update(const zel::ByteRange* bytes) override {
    auto call = Begin(Op::update, 0);
    for (url_ = urlCount - 1; url_ >= 0; --url_) {
      const std::u16string& known = Url(url_);
      if (TextOf(*bytes) == std::string_view(reinterpret_cast<const char*>(known.data()), 2 * known.size()))
        return call.Done();
    }
    host.Fail(invariant::calls, "the hash of something else than a url");
    return call.Done();
  }
  zel::ResultCode ReservedHashOperation2() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation3() override { return Reserved(); }
  zel::ResultCode ReservedHashOperation4() override { return Reserved(); }
  zel::ResultCode Finish(std::uint8_t* digest) override {
    auto call = Begin(Op::finish, 0);
    std::ranges::copy(Digest(std::max(url_, 0)), digest);
    return call.Done();
  }

 private:
  int url_ = -1;
};

class HashFactory final : public Fake<crypto::hash::IHashCalculatorFactory> {
 public:
  using Fake::Fake;
  zel::ResultCode CreateCalculator(std::uint32_t algorithm, zel::IObject** out) override {
    auto call = Begin(Op::createCalculator, 0);
    if (algorithm != queueNameAlgorithm) host.Fail(invariant::calls, "another hash");
    if (!call.Refused()) *out = host.Make<Calculator>();
    return call.Done();
  }
};

// A sink that is armed while it runs is due, but runs no second time before its first Run has ended.
class Timer final : public Fake<zel::ITimerService> {
 public:
  using Fake::Fake;
  zel::ResultCode ReservedTimerOperation0() override { return Reserved(); }
  zel::ResultCode ReservedTimerOperation1() override { return Reserved(); }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override {
    auto call = Begin(Op::armTimer, 1, delayMs);
    if (call.Refused()) return call.Done();
    host.sink = sink;
    const std::uint64_t due = host.nowMs + delayMs;
    host.timerDueMs = host.timerRestarts ? due : std::min(host.timerDueMs, due);
    return call.Done();
  }
  zel::ResultCode DisarmTimer(zel::IRunnable*) override {
    auto call = Begin(Op::disarmTimer, 1);
    host.timerDueMs = never;
    return call.Done();
  }
  zel::ResultCode CancelTimer(zel::IRunnable*) override {
    auto call = Begin(Op::cancelTimer, 0);
    if (host.running) host.park();
    host.timerDueMs = never;
    host.Append({.op = Op::enter, .a = static_cast<std::uint64_t>(Entry::drain)});
    if (call.Planned() == throws) throw Scripted();
    return call.Planned();
  }
};

class Mode final : public Fake<orvel::IExecutionModeProvider> {
 public:
  using Fake::Fake;
  std::uint32_t IsBackgroundDisabled() override {
    auto call = Begin(Op::isBackgroundDisabled, 0);
    return static_cast<std::uint32_t>(call.Done(call.Planned() != 0 ? call.Planned() : host.gateClosed));
  }
};

class Signature final : public Fake<orvel::ISignatureProvider> {
 public:
  using Fake::Fake;
  zel::ResultCode Sign(const zel::ByteRange* payload, zel::vector_t<std::uint8_t>* signatureBlock) override {
    auto call = Begin(Op::sign, 0);
    const std::string_view text = TextOf(*payload);
    if (!signatureBlock->empty() || signatureBlock->allocator.Service())
      host.Fail(invariant::calls, "a filled block");
    host.signedPrint = Print(text);
    host.signature = text.substr(0, text.size() % 6);
    host.signature += std::string("\xfb\xff\0", text.size() % 4 == 0 ? 0 : 3);
    // A failing one leaves its bytes, too.
    signatureBlock->assign(reinterpret_cast<const std::uint8_t*>(host.signature.data()),
                           host.signature.size());
    host.signed_ = !call.Refused();
    return call.Done();
  }
};

class Notification final : public Fake<orvel::IRequestsNotification> {
 public:
  using Fake::Fake;
  zel::ResultCode OnRequestFinished(const orvel::RequestNotification* notification) override {
    auto call = Begin(Op::onRequestFinished, 0, static_cast<std::uint32_t>(notification->resultCode));
    std::string narrow;
    for (const char16_t unit : Url(host.completing ? host.completing->url : 0))
      narrow += unit < 0x80 ? std::string(1, static_cast<char>(unit)) : "\xc3\xa4";
    // Without memory the url stays empty.
    const bool right = notification->source.View() == "VeldRep" &&
                       (notification->url.View() == narrow || notification->url.empty());
    if (!right || !host.completing) host.Fail(invariant::calls, "a notification of something else");
    return call.Done();
  }
};

class Locator final : public Fake<zel::IServiceLocator> {
 public:
  using Fake::Fake;
  zel::ResultCode GetInterface(zel::InterfaceId interfaceId, std::uint32_t, void** out) override {
    auto call = Begin(Op::lookUp, 0, interfaceId);
    // The interface of no service is 0, so the first that knows the id is the only one.
    for (const auto& [service, without] : host.services) {
      if (interfaceId == 0 || (host.missing & without)) continue;
      if (service->QueryInterface(interfaceId, out) != zel::sOk) continue;
      if (!call.Refused()) return zel::sOk;
      // What a sender wasn't given when it was constructed it never asks for again.
      if (host.constructing) host.missing |= without;
      zel::Ref<zel::IObject>::Attach(service).Reset();
      *out = nullptr;
    }
    return call.Refused() ? call.Planned() : zel::eNotFound;
  }
};

}  // namespace

void AddServices(Host& host) {
  host.allocator = host.Make<HostAllocator>();
  host.locator = host.Make<Locator>();
  host.services = {{host.allocator},
                   {host.Make<Tracer>()},
                   {MakeJsonFactory(host)},
                   {MakeSerializer(host)},
                   {host.Make<HashFactory>()},
                   {MakeQueueFactory(host), noQueues},
                   {MakeClientFactory(host), noHttp},
                   {host.Make<Timer>(), noTimer},
                   {host.Make<Mode>(), noMode},
                   {host.Make<Signature>(), noSignature},
                   {host.Make<Notification>(), noNotification}};
}

}  // namespace veld_report::world
