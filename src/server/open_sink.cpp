#include "server/open_sink.h"

#include <stdexcept>

#include "host/base/redact.h"
#include "server/ndjson_file.h"
#include "server/postgres_table.h"
#include "server/sqlite_file.h"
#include "server/stream_sink.h"

namespace veld_report::server {

namespace {

// "nats" of "nats://..."; empty if it is a path.
std::string_view SchemeOf(std::string_view out) {
  const std::size_t end = out.find("://");
  const bool isUrl = end != std::string_view::npos && out.find('/') == end + 1;
  return isUrl ? out.substr(0, end) : "";
}

}  // namespace

SinkKind SinkKindOf(std::string_view out) {
  const std::string_view scheme = SchemeOf(out);
  if (scheme == "postgresql" || scheme == "postgres") return SinkKind::postgres;
  if (scheme == "nats") return SinkKind::stream;
  if (!scheme.empty()) {
    throw std::invalid_argument("there is no sink for " + std::string(scheme) +
                                "://; expected FILE, FILE.sqlite, postgresql:// or nats://");
  }
  if (out.ends_with(".sqlite")) return SinkKind::sqlite;
  return SinkKind::lines;
}

std::string DisplayName(std::string_view out) {
  if (SchemeOf(out).empty()) return std::string(out);
  return host::WithoutCredentials(out.substr(0, out.find('?')));
}

std::unique_ptr<RecordSink> OpenSink(const SinkOptions& options) {
  switch (SinkKindOf(options.out)) {
    case SinkKind::sqlite:
      return std::make_unique<SqliteFile>(options);
    case SinkKind::postgres:
      return std::make_unique<PostgresTable>(options);
    case SinkKind::stream:
      return std::make_unique<StreamSink>(options);
    case SinkKind::lines:
      break;
  }
  return std::make_unique<NdjsonFile>(options);
}

}  // namespace veld_report::server
