#include "tests/world/services.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

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

}  // namespace

void* HostAllocator::Allocate(std::uint64_t size) {
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

void HostAllocator::Free(void* memory) {
  const Outside outside;
  Use();
  auto* block = static_cast<std::uint64_t*>(memory) - 2;
  if (block[0] != blockOut) return host.Fail(invariant::balance, "Free of a block that isn't out");
  block[0] = 0;
  --host.blocks;
  std::free(block);
  if (host.missing & cleanUpThrows) throw Scripted();
}

zel::ResultCode Tracer::AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) {
  Use();
  if (!host.trace || size > buffer_.size()) return 1;
  Call call(host, Op::acquireBuffer, 0);
  if (call.Planned() != 0) return call.Planned();
  if (level != growLevel) {
    *buffer = buffer_.data();
    level_ = level;
  }
  return zel::sOk;
}

zel::ResultCode Tracer::CommitBuffer(char* buffer, std::uint64_t length) {
  const Outside outside;
  Use();
  Call call(host, Op::commitBuffer, 0);
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

zel::ResultCode Calculator::QueryInterface(zel::InterfaceId interfaceId, void** out) {
  Call call(host, Op::queryCalculator, 0);
  *out = nullptr;
  return call.Done(call.Refused() ? call.Planned() : Fake::QueryInterface(interfaceId, out));
}

zel::ResultCode Calculator::Update(const zel::ByteRange* bytes) {
  Use();
  Call call(host, Op::update, 0);
  const std::string_view given(reinterpret_cast<const char*>(bytes->begin),
                               static_cast<std::size_t>(bytes->end - bytes->begin));
  url_ = -1;
  for (int url = 0; url < urlCount; ++url) {
    const std::u16string& known = Url(url);
    if (given == std::string_view(reinterpret_cast<const char*>(known.data()), 2 * known.size())) url_ = url;
  }
  if (url_ < 0) host.Fail(invariant::calls, "the hash of something else than a url");
  return call.Done(call.Planned());
}

zel::ResultCode Calculator::Finish(std::uint8_t* digest) {
  Use();
  Call call(host, Op::finish, 0);
  std::ranges::copy(Digest(std::max(url_, 0)), digest);
  return call.Done(call.Planned());
}

zel::ResultCode HashFactory::CreateCalculator(std::uint32_t algorithm, zel::IObject** out) {
  Use();
  Call call(host, Op::createCalculator, 0);
  if (algorithm != queueNameAlgorithm) host.Fail(invariant::calls, "another hash");
  if (call.Refused()) return call.Done(call.Planned());
  *out = host.Make<Calculator>();
  return call.Done(call.Planned());
}

zel::ResultCode Timer::ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) {
  Use();
  Call call(host, Op::armTimer, 1, delayMs);
  if (call.Refused()) return call.Done(call.Planned());
  host.sink = sink;
  const std::uint64_t due = host.nowMs + delayMs;
  host.timerDueMs = host.timerRestarts ? due : std::min(host.timerDueMs, due);
  return call.Done(call.Planned());
}

zel::ResultCode Timer::DisarmTimer(zel::IRunnable*) {
  Use();
  Call call(host, Op::disarmTimer, 1);
  host.timerDueMs = never;
  return call.Done(call.Planned());
}

zel::ResultCode Timer::CancelTimer(zel::IRunnable*) {
  Use();
  Call call(host, Op::cancelTimer, 0);
  if (host.running) host.park();
  host.timerDueMs = never;
  host.Append({.op = Op::enter, .a = static_cast<std::uint64_t>(Entry::drain)});
  if (call.Planned() == throws) throw Scripted();
  return call.Planned();
}

std::uint32_t Mode::IsBackgroundDisabled() {
  Use();
  Call call(host, Op::isBackgroundDisabled, 0);
  return static_cast<std::uint32_t>(call.Done(call.Planned() != 0 ? call.Planned() : host.gateClosed));
}

zel::ResultCode Signature::Sign(const zel::ByteRange* payload, zel::vector_t<std::uint8_t>* signatureBlock) {
  Use();
  Call call(host, Op::sign, 0);
  const std::string_view text(reinterpret_cast<const char*>(payload->begin),
                              static_cast<std::size_t>(payload->end - payload->begin));
  if (!signatureBlock->empty() || signatureBlock->allocator.Service())
    host.Fail(invariant::calls, "a filled block");
  host.signedPrint = Print(text);
  host.signature = text.substr(0, text.size() % 6);
  host.signature += std::string("\xfb\xff\0", text.size() % 4 == 0 ? 0 : 3);
  // A failing one leaves its bytes, too.
  signatureBlock->assign(reinterpret_cast<const std::uint8_t*>(host.signature.data()), host.signature.size());
  host.signed_ = !call.Refused();
  return call.Done(call.Planned());
}

zel::ResultCode Notification::OnRequestFinished(const orvel::RequestNotification* notification) {
  Use();
  Call call(host, Op::onRequestFinished, 0, static_cast<std::uint32_t>(notification->resultCode));
  const std::u16string& url = Url(host.completing ? host.completing->url : 0);
  std::string narrow;
  for (const char16_t unit : url)
    narrow += unit < 0x80 ? std::string(1, static_cast<char>(unit)) : "\xc3\xa4";
  // Without memory the url stays empty.
  const bool right = notification->source.View() == "VeldRep" &&
                     (notification->url.View() == narrow || notification->url.empty());
  if (!right || !host.completing) host.Fail(invariant::calls, "a notification of something else");
  return call.Done(call.Planned());
}

zel::ResultCode Locator::GetInterface(zel::InterfaceId interfaceId, std::uint32_t, void** out) {
  Use();
  Call call(host, Op::lookUp, 0, interfaceId);
  Services& all = *host.services;
  const auto offer = [&](auto& service, int without = 0) {
    if ((host.missing & without) != 0 || service.QueryInterface(interfaceId, out) != zel::sOk) return false;
    if (!call.Refused()) return true;
    // What a sender wasn't given when it was constructed it never asks for again.
    if (host.constructing) host.missing |= without;
    --service.references;
    *out = nullptr;
    return false;
  };
  // The interface of no service is 0, so the first that knows the id is the only one.
  if (interfaceId != 0 && (offer(all.allocator) || offer(all.tracer) || offer(all.json) ||
                           offer(all.serializer) || offer(all.hash) || offer(all.queues, noQueues) ||
                           offer(all.http, noHttp) || offer(all.timer, noTimer) || offer(all.mode, noMode) ||
                           offer(all.signature, noSignature) || offer(all.notification, noNotification))) {
    return zel::sOk;
  }
  return call.Refused() ? call.Planned() : zel::eNotFound;
}

Services::Services(Host& host)
    : allocator(host),
      tracer(host),
      hash(host),
      queues(host),
      http(host),
      timer(host),
      mode(host),
      signature(host),
      notification(host),
      json(host),
      serializer(host),
      locator(host) {}

void Services::CheckReferences(Host& host) const {
  const std::pair<const char*, std::uint32_t> counts[] = {{"allocator", allocator.references},
                                                          {"tracer", tracer.references},
                                                          {"hash", hash.references},
                                                          {"queues", queues.references},
                                                          {"manager", queues.ManagerReferences()},
                                                          {"http", http.references},
                                                          {"client", http.client.references},
                                                          {"timer", timer.references},
                                                          {"mode", mode.references},
                                                          {"signature", signature.references},
                                                          {"notification", notification.references},
                                                          {"json", json.references},
                                                          {"serializer", serializer.references},
                                                          {"locator", locator.references}};
  for (const auto& [name, count] : counts) {
    if (count == 1) continue;
    host.Fail(invariant::balance, std::string(name) + " has " + std::to_string(count) + " references");
  }
}

}  // namespace veld_report::world
