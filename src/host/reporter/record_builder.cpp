#include "veld_report/record_builder.h"

#include "host/json/json_token.h"

namespace veld_report {

using host::JsonToken;

RecordBuilder& RecordBuilder::Add(std::string_view name, std::string_view value) {
  return AddText(name, JsonToken(value));
}

RecordBuilder& RecordBuilder::Add(std::string_view name, const char* value) {
  return value ? Add(name, std::string_view(value)) : Add(name, nullptr);
}

RecordBuilder& RecordBuilder::Add(std::string_view name, bool value) {
  return AddText(name, value ? "true" : "false");
}

RecordBuilder& RecordBuilder::Add(std::string_view name, double value) {
  return AddText(name, JsonToken(value));
}

RecordBuilder& RecordBuilder::Add(std::string_view name, std::nullptr_t) { return AddText(name, "null"); }

RecordBuilder& RecordBuilder::Add(std::string_view name, const RecordBuilder& inner) {
  return AddText(name, inner.Text());
}

RecordBuilder& RecordBuilder::Add(std::string_view name, const Json& value) {
  return AddText(name, value.text);
}

RecordBuilder& RecordBuilder::AddSigned(std::string_view name, std::int64_t value) {
  return AddText(name, std::to_string(value));
}

RecordBuilder& RecordBuilder::AddUnsigned(std::string_view name, std::uint64_t value) {
  return AddText(name, std::to_string(value));
}

RecordBuilder& RecordBuilder::AddText(std::string_view name, std::string_view json) {
  std::string member = members_.empty() ? "" : ",";
  member.append(JsonToken(name)).append(":").append(json);
  members_.append(member);
  return *this;
}

}  // namespace veld_report
