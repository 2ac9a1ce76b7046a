#include "host/json/record_stamp.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <span>
#include <stdexcept>
#include <utility>

#include "host/json/json_token.h"
#include "host/platform/machine_clock.h"
#include "host/platform/random.h"

namespace veld_report::host {
namespace {

// Of all stamps of the process: the milliseconds since 1970 in the upper 48 bits, a counter in the others. If
// a millisecond has more than 65536 records, or the clock goes back, the count runs ahead of the clock. Each
// is greater than all before it in the order of this one variable, so relaxed is enough.
constinit std::atomic<std::uint64_t> lastTick{0};

std::uint64_t NextTick(std::uint64_t nowMs) {
  std::uint64_t last = lastTick.load(std::memory_order_relaxed);
  std::uint64_t next = 0;
  do {
    next = std::max(last + 1, nowMs << 16);
  } while (!lastTick.compare_exchange_weak(last, next, std::memory_order_relaxed));
  return next;
}

// The finaliser of SplitMix64: each bit of the result depends on all bits of the argument.
std::uint64_t Mixed(std::uint64_t value) {
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31);
}

constexpr auto hexOfBytes = [] {
  constexpr std::string_view digits = "0123456789abcdef";
  std::array<std::array<char, 2>, 256> table{};
  for (std::size_t byte = 0; byte < table.size(); ++byte)
    table[byte] = {digits[byte >> 4], digits[byte & 15]};
  return table;
}();

// Writes the lowest bytes of `value`. Returns the end.
char* Hex(char* out, std::uint64_t value, int bytes) {
  while (bytes-- > 0) {
    std::memcpy(out, hexOfBytes[(value >> (8 * bytes)) & 0xff].data(), 2);
    out += 2;
  }
  return out;
}

char* Digits(char* out, unsigned value, int count) {
  for (int i = count; i-- > 0; value /= 10) out[i] = static_cast<char>('0' + value % 10);
  return out + count;
}

constexpr std::string_view blankStamp =
    R"(,"recordId":"xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx","recordTime":"xxxxxxxxxxxxxxxxxxx.xxxZ")";
static_assert(blankStamp.size() == RecordStamp::stampBytes);
constexpr std::size_t idAt = blankStamp.find('x');
constexpr std::size_t timeAt = blankStamp.rfind(":\"x") + 2;

constexpr std::size_t secondBytes = 19;
using SecondText = std::array<char, secondBytes>;

SecondText FormatSecond(std::uint64_t second) {
  using namespace std::chrono;
  const sys_seconds time{seconds(second)};
  const sys_days day = floor<days>(time);
  const year_month_day date{day};
  const auto ofDay = static_cast<unsigned>((time - day).count());
  SecondText text{};
  char* out = Digits(text.data(), static_cast<unsigned>(static_cast<int>(date.year())), 4);
  *out++ = '-';
  out = Digits(out, static_cast<unsigned>(date.month()), 2);
  *out++ = '-';
  out = Digits(out, static_cast<unsigned>(date.day()), 2);
  *out++ = 'T';
  out = Digits(out, ofDay / 3600, 2);
  *out++ = ':';
  out = Digits(out, ofDay / 60 % 60, 2);
  *out++ = ':';
  Digits(out, ofDay % 60, 2);
  return text;
}

// The divisions of a date take longer than the rest of a stamp, so a thread keeps its last one.
const SecondText& TextOfSecond(std::uint64_t second) {
  static thread_local constinit std::uint64_t known = UINT64_MAX;
  static thread_local constinit SecondText text{};
  if (known != second) {
    text = FormatSecond(second);
    known = second;
  }
  return text;
}

}  // namespace

RecordStamp::RecordStamp(bool stamped, std::shared_ptr<const Clock> clock)
    : stamped_(stamped), clock_(std::move(clock)) {
  if (stamped_) FillWithRandom(std::as_writable_bytes(std::span(key_)));
}

std::shared_ptr<const RecordStamp::CommonTexts> RecordStamp::Prepare(
    const std::vector<CommonMember>& members) {
  auto result = std::make_shared<CommonTexts>();
  std::set<std::string_view> names{idName, timeName};
  for (const auto& [name, value] : members) {
    if (name.empty()) throw std::invalid_argument("settings: a common member has no name");
    if (!names.insert(name).second) {
      const bool own = name == idName || name == timeName;
      throw std::invalid_argument("settings: the common member " + name +
                                  (own ? " has the name of a member of the stamp" : " is given twice"));
    }
    result->texts.push_back({name, JsonToken(name) + ":" + JsonToken(value)});
  }
  return result;
}

void RecordStamp::SetCommon(std::shared_ptr<const CommonTexts> texts) {
  const bool hasCommon = !texts->texts.empty();
  const std::lock_guard lock(mutex_);
  common_.swap(texts);
  hasCommon_.store(hasCommon, std::memory_order_relaxed);
}

std::shared_ptr<const RecordStamp::CommonTexts> RecordStamp::Common() const {
  const std::lock_guard lock(mutex_);
  return common_;
}

std::uint64_t RecordStamp::NowMs() const {
  std::int64_t ms = 0;
  if (clock_) {
    const auto now = clock_->WallNow().time_since_epoch();
    ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  } else {
    // The exact clock would take longer than all the rest.
    ms = CoarseCalendarMs();
  }
  constexpr std::int64_t lastOfYear9999 = 253402300799999;
  return static_cast<std::uint64_t>(std::clamp<std::int64_t>(ms, 0, lastOfYear9999));
}

// The tick alone is unique in the process. Its keyed hash stands in for the random bits, so that ids of
// different processes don't meet, nothing in an id identifies its process, and no state needs a lock.
void RecordStamp::WriteId(std::uint64_t nowMs, char* out) const {
  const std::uint64_t tick = NextTick(nowMs);
  const std::uint64_t random = Mixed(Mixed(tick ^ key_[0]) + key_[1]) >> 6;
  const std::uint64_t high = (tick & ~std::uint64_t{0xffff}) | 0x7000 | ((tick >> 4) & 0xfff);
  const std::uint64_t low = (std::uint64_t{2} << 62) | ((tick & 0xf) << 58) | random;
  out = Hex(Hex(Hex(Hex(out, high >> 32, 4) + 1, high >> 16, 2) + 1, high, 2) + 1, low >> 48, 2) + 1;
  Hex(out, low, 6);
}

RecordStamp::StampText RecordStamp::NextStamp() const {
  StampText text;
  std::copy(blankStamp.begin(), blankStamp.end(), text.begin());
  const std::uint64_t now = NowMs();
  WriteId(now, text.data() + idAt);
  char* const time = text.data() + timeAt;
  std::memcpy(time, TextOfSecond(now / 1000).data(), secondBytes);
  Digits(time + secondBytes + 1, static_cast<unsigned>(now % 1000), 3);
  return text;
}

}  // namespace veld_report::host
