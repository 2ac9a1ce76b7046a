// RecordStamp: the members that the kit adds to each record, after the record's own.
//
// These are the common members of the settings and, if stamping is on, "recordId" and "recordTime". A record
// gets them once, when it is submitted, so whoever receives it twice sees the same id twice. That is why they
// aren't added when a message is made.
//
// The id is a UUID of version 7 (RFC 9562, section 5.7), monotonic within the process: of two ids, the one
// that was made later is greater, whatever thread or reporter made it and wherever the clock is set. The time
// is RFC 3339, UTC, with milliseconds; it moves with the kernel's tick, which is usually every 4 ms.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/clock.h"
#include "host/json/json_text_writer.h"

namespace veld_report::host {

// A member that every record gets: a name, and a text that becomes a JSON string.
struct CommonMember {
  std::string name{};
  std::string value{};
};

// Threads: any. A process that was forked makes a stamp of its own, or its ids would repeat the parent's.
class RecordStamp {
 public:
  static constexpr std::string_view idName = "recordId";
  static constexpr std::string_view timeName = "recordTime";
  // What the id and the time add to a record.
  static constexpr std::size_t stampBytes = 90;

  class CommonTexts;

  // If `stamped` is false, only common members are added. `clock` may be null: the system's. Throws
  // std::system_error if the system has no random numbers.
  explicit RecordStamp(bool stamped, std::shared_ptr<const Clock> clock = {});

  // Throws std::invalid_argument if a name is empty, given twice, or one of the two above.
  static std::shared_ptr<const CommonTexts> Prepare(const std::vector<CommonMember>& members);
  // From the next record on.
  void SetCommon(std::shared_ptr<const CommonTexts> texts);

  bool AddsSomething() const { return stamped_ || hasCommon_.load(std::memory_order_relaxed); }

  // Writes the members, except those whose name `has` knows. `first`: nothing precedes them in the object.
  template <class Has>
  void Write(JsonTextWriter& out, bool first, const Has& has) const;

  class CommonTexts {
   public:
    struct Text {
      std::string name;
      std::string json;  // "name":"value"
    };
    std::vector<Text> texts;
  };

 private:
  // Both members, each with a comma before it.
  using StampText = std::array<char, stampBytes>;
  static constexpr std::size_t idEnd = 50;

  std::shared_ptr<const CommonTexts> Common() const;
  StampText NextStamp() const;
  void WriteId(std::uint64_t nowMs, char* out) const;
  std::uint64_t NowMs() const;

  const bool stamped_;
  const std::shared_ptr<const Clock> clock_;
  std::array<std::uint64_t, 2> key_{};  // makes the random part of the ids
  // Whether common_ has members, without the lock. Changed under it, so whoever reads true finds common_ set
  // once it has the lock.
  std::atomic<bool> hasCommon_{false};
  mutable std::mutex mutex_;  // guards common_; held only to copy it
  std::shared_ptr<const CommonTexts> common_;
};

template <class Has>
void RecordStamp::Write(JsonTextWriter& out, bool first, const Has& has) const {
  if (hasCommon_.load(std::memory_order_relaxed)) {
    const auto common = Common();
    for (const CommonTexts::Text& text : common->texts) {
      if (has(text.name)) continue;
      if (!first) out.Raw(',');
      first = false;
      out.Raw(text.json);
    }
  }
  if (!stamped_) return;
  const StampText text = NextStamp();
  const std::string_view all(text.data(), text.size());
  const bool ownId = has(idName);
  const bool ownTime = has(timeName);
  if (!ownId && !ownTime) {
    out.Raw(first ? all.substr(1) : all);
  } else if (!ownId) {
    out.Raw(all.substr(first ? 1 : 0, idEnd - (first ? 1 : 0)));
  } else if (!ownTime) {
    out.Raw(all.substr(idEnd));  // after the record's own id, so never the first
  }
}

}  // namespace veld_report::host
