// RecordBuilder: a record whose fields are only known at run time.
//
//   reporter.Send(veld_report::RecordBuilder().Add("event", "click").Add("count", 3));
//
// It differs from a described struct (record.h) in that it costs memory and doesn't keep the types. It only
// writes: what was added can't be read or changed.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "veld_report/record.h"

namespace veld_report {

// For one thread at a time; may be copied and reused. Every Add appends a member and throws std::bad_alloc.
// Names aren't checked for duplicates. Text is UTF-8; invalid sequences become U+FFFD.
class RecordBuilder {
 public:
  RecordBuilder& Add(std::string_view name, std::string_view value);
  RecordBuilder& Add(std::string_view name, const std::string& value) {
    return Add(name, std::string_view(value));
  }
  // Adds null for a null pointer.
  RecordBuilder& Add(std::string_view name, const char* value);
  RecordBuilder& Add(std::string_view name, bool value);
  template <std::signed_integral T>
  RecordBuilder& Add(std::string_view name, T value) {
    return AddSigned(name, value);
  }
  template <std::unsigned_integral T>
  RecordBuilder& Add(std::string_view name, T value) {
    return AddUnsigned(name, value);
  }
  // Adds null if the value isn't finite.
  RecordBuilder& Add(std::string_view name, double value);
  RecordBuilder& Add(std::string_view name, std::nullptr_t);
  // Adds the inner record as it is now.
  RecordBuilder& Add(std::string_view name, const RecordBuilder& inner);
  // Checked when the record is sent.
  RecordBuilder& Add(std::string_view name, const Json& value);
  template <class T>
  RecordBuilder& Add(std::string_view name, const std::vector<T>& values) {
    std::string elements;
    for (const auto& value : values) {
      RecordBuilder one;
      one.Add({}, static_cast<const T&>(value));
      if (!elements.empty()) elements.push_back(',');
      // The value follows the empty name and the colon; for an empty optional there is nothing.
      elements.append(one.members_.empty() ? std::string_view("null")
                                           : std::string_view(one.members_).substr(3));
    }
    return AddText(name, '[' + elements + ']');
  }
  // An empty optional adds nothing.
  template <class T>
  RecordBuilder& Add(std::string_view name, const std::optional<T>& value) {
    if (value.has_value()) Add(name, value.value());
    return *this;
  }

  // The record as JSON text.
  std::string Text() const { return '{' + members_ + '}'; }

 private:
  RecordBuilder& AddSigned(std::string_view name, std::int64_t value);
  RecordBuilder& AddUnsigned(std::string_view name, std::uint64_t value);
  RecordBuilder& AddText(std::string_view name, std::string_view json);

  std::string members_;
};

}  // namespace veld_report
