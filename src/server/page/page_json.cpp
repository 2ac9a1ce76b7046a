#include "server/page/page_json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

#include "host/base/printable.h"

namespace veld_report::server {
namespace {

using TimePoint = std::chrono::system_clock::time_point;

constexpr std::size_t commonestValues = 6;
constexpr std::size_t lineBytes = 600;  // of a record in the list

// One value, written in order. Names and texts may be any bytes that are valid UTF-8.
class Json {
 public:
  Json& Begin() { return writer_.StartObject(), *this; }
  Json& End() { return writer_.EndObject(), *this; }
  Json& BeginList() { return writer_.StartArray(), *this; }
  Json& EndList() { return writer_.EndArray(), *this; }
  Json& Name(std::string_view name) { return writer_.Key(name.data(), Length(name)), *this; }
  Json& Text(std::string_view text) { return writer_.String(text.data(), Length(text)), *this; }
  Json& Count(std::uint64_t number) { return writer_.Uint64(number), *this; }
  Json& Number(double number) { return writer_.Double(number), *this; }
  Json& Bool(bool value) { return writer_.Bool(value), *this; }
  Json& Time(TimePoint time) {
    const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    return writer_.Int64(since.count()), *this;
  }
  std::string Take() const { return {buffer_.GetString(), buffer_.GetSize()}; }

 private:
  static rapidjson::SizeType Length(std::string_view text) {
    return static_cast<rapidjson::SizeType>(text.size());
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
};

// The parts of a request that may hold any bytes.
void WriteOrigin(const std::string& host, const std::string& path, Json& json) {
  json.Name("host").Text(host::WithoutControls(host)).Name("path").Text(host::WithoutControls(path));
}

void WriteTotals(const PageTotals& all, Json& json) {
  const ServerTotals& totals = all.totals;
  json.Begin();
  json.Name("time").Time(std::chrono::system_clock::now());
  json.Name("messages").Count(totals.messages).Name("records").Count(totals.records);
  json.Name("repeated").Count(totals.repeated).Name("bytes").Count(totals.bodyBytes);
  json.Name("refused").Count(totals.refused).Name("reasons").Begin();
  for (std::size_t i = 0; i < refusalCount; ++i) {
    if (totals.byReason[i] != 0) json.Name(refusalNames[i]).Count(totals.byReason[i]);
  }
  json.End().Name("cut").Begin();
  for (std::size_t i = 0; i < cutCount; ++i) {
    if (totals.cut[i] != 0) json.Name(cutNames[i]).Count(totals.cut[i]);
  }
  json.End();
  json.Name("second").BeginList().Count(all.second.records).Count(all.second.messages);
  json.Count(all.second.refused).EndList();
  json.Name("connections").Count(all.load.connections);
  json.Name("connectionLimit").Count(all.load.connectionLimit);
  json.Name("bodyMemory").Count(all.load.bodyBytes);
  json.Name("sinkFails").Bool(all.load.sinkFails);
  json.Name("sinkMedian").Number(all.sinkMedian).Name("sinkSlow").Number(all.sinkSlow);
  json.Name("skipped").Count(all.skipped);
  json.End();
}

void WriteLevel(const RateHistory::Level& level, Json& json) {
  json.Begin().Name("step").Count(static_cast<std::uint64_t>(level.stepSeconds));
  json.Name("latest").Count(static_cast<std::uint64_t>(level.latest * level.stepSeconds));
  const auto list = [&](const char* name, std::uint64_t RateSample::*member) {
    json.Name(name).BeginList();
    for (const RateSample& each : level.samples) json.Count(each.*member);
    json.EndList();
  };
  list("records", &RateSample::records);
  list("messages", &RateSample::messages);
  list("refused", &RateSample::refused);
  json.End();
}

void WriteMember(const MemberFigures& member, Json& json) {
  static constexpr std::array<const char*, memberTypeCount> typeNames{"text", "number", "boolean",
                                                                      "null", "array",  "object"};
  json.Begin().Name("path").Text(member.path).Name("records").Count(member.records);
  json.Name("types").Begin();
  for (std::size_t i = 0; i < memberTypeCount; ++i) {
    if (member.types[i] != 0) json.Name(typeNames[i]).Count(member.types[i]);
  }
  json.End();
  if (member.minimum) json.Name("minimum").Number(*member.minimum).Name("maximum").Number(*member.maximum);
  json.Name("different").Count(member.values.size()).Name("untold").Count(member.untold);
  json.Name("values").BeginList();
  for (const auto& [value, count] : MemberTable::Commonest(member, commonestValues))
    json.BeginList().Text(value).Count(count).EndList();
  json.EndList().End();
}

void WritePacket(const ShownPacket& packet, Json& json) {
  json.Begin().Name("number").Count(packet.number).Name("time").Time(packet.time);
  WriteOrigin(packet.host, packet.path, json);
  json.Name("peer").Text(packet.peer).Name("bytes").Count(packet.bodyBytes);
  json.Name("records").Count(packet.records).Name("stored").Count(packet.stored);
  json.Name("repeated").Count(packet.repeated);
  json.Name("sinkSeconds").Number(std::chrono::duration<double>(packet.sinkTime).count());
  json.Name("key").Text(host::WithoutControls(packet.keyName));
  json.Name("signatureHeader").Text(host::WithoutControls(packet.signatureHeader));
  json.Name("signature")
      .Text(packet.signatureChecked   ? "valid"
            : packet.signatureIsEmpty ? "none"
                                      : "unchecked");
  json.End();
}

}  // namespace

std::string TotalsJson(const PageTotals& totals) {
  Json json;
  WriteTotals(totals, json);
  return json.Take();
}

std::string StateJson(const std::string& serverUrl, TimePoint started, const PageTotals& totals,
                      const RateHistory& history) {
  Json json;
  json.Begin().Name("url").Text(serverUrl).Name("started").Time(started).Name("totals");
  WriteTotals(totals, json);
  json.Name("history").BeginList();
  for (const RateHistory::Level& each : history.Levels()) WriteLevel(each, json);
  json.EndList().End();
  return json.Take();
}

std::string SourcesJson(const std::vector<SourceFigures>& sources) {
  Json json;
  json.BeginList();
  for (const SourceFigures& each : sources) {
    json.Begin();
    WriteOrigin(each.host, each.path, json);
    json.Name("messages").Count(each.messages).Name("records").Count(each.records);
    json.Name("repeated").Count(each.repeated).Name("rate").Number(each.recordsASecond);
    json.Name("lastSeen").Time(each.lastSeen).End();
  }
  json.EndList();
  return json.Take();
}

std::string MembersJson(const MemberTable& table) {
  Json json;
  json.Begin().Name("records").Count(table.Records());
  json.Name("withOthers").Count(table.RecordsWithOthers()).Name("members").BeginList();
  for (const MemberFigures& each : table.Members()) WriteMember(each, json);
  json.EndList().End();
  return json.Take();
}

std::string RefusedJson(const std::vector<RefusedRequest>& requests) {
  Json json;
  json.BeginList();
  for (const RefusedRequest& each : requests) {
    json.Begin().Name("number").Count(each.number).Name("time").Time(each.time);
    WriteOrigin(each.host, each.path, json);
    json.Name("peer").Text(each.peer).Name("status").Count(each.status);
    json.Name("reason").Text(refusalNames[static_cast<std::size_t>(each.reason)]);
    json.Name("sentence").Text(host::WithoutControls(each.sentence));
    json.Name("bytes").Count(each.bodyBytes).Name("hasBody").Bool(each.body != nullptr).End();
  }
  json.EndList();
  return json.Take();
}

std::string RecordLineJson(const ShownRecord& record) {
  std::size_t shown = std::min(record.text.size(), lineBytes);
  while (shown < record.text.size() && (static_cast<unsigned char>(record.text[shown]) & 0xc0) == 0x80)
    --shown;
  Json json;
  json.Begin().Name("number").Count(record.number).Name("time").Time(record.packet->time);
  WriteOrigin(record.packet->host, record.packet->path, json);
  json.Name("text").Text(std::string_view(record.text).substr(0, shown));
  json.Name("bytes").Count(record.wholeBytes).End();
  return json.Take();
}

std::string RecordJson(const ShownRecord& record, const std::vector<std::uint64_t>& others) {
  Json json;
  json.Begin().Name("number").Count(record.number).Name("place").Count(record.place + 1);
  json.Name("text").Text(record.text).Name("bytes").Count(record.wholeBytes);
  json.Name("others").BeginList();
  for (const std::uint64_t each : others) json.Count(each);
  json.EndList().Name("packet");
  WritePacket(*record.packet, json);
  json.End();
  return json.Take();
}

}  // namespace veld_report::server
