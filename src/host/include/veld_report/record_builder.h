// RecordBuilder, a record whose fields are known at run time only.
//
//   reporter.Send(veld_report::RecordBuilder().Add("event", "click").Add("count", 3));
//
// It differs from a described struct (record.h) in that it costs memory and forgets the types. It is a
// writer, not a document: what was added can't be read or changed.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "veld_report/record.h"

namespace veld_report {

// Belongs to one thread at a time; may be copied and used again. Every Add appends a member and throws
// std::bad_alloc; the names aren't checked for repetition. Text is UTF-8, with U+FFFD in place of what isn't.
class RecordBuilder {
 public:
  RecordBuilder& Add(std::string_view name, std::string_view value);
  RecordBuilder& Add(std::string_view name, const std::string& value) {
    return Add(name, std::string_view(value));
  }
  // A null pointer adds null.
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
  // Null if the value isn't finite.
  RecordBuilder& Add(std::string_view name, double value);
  RecordBuilder& Add(std::string_view name, std::nullptr_t);
  // The inner record as it is at this moment.
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
      // The value stands behind the empty name and the colon; an empty optional has left nothing.
      elements.append(one.members_.empty() ? std::string_view("null")
                                           : std::string_view(one.members_).substr(3));
    }
    return AddText(name, '[' + elements + ']');
  }
  // An empty one adds nothing.
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
