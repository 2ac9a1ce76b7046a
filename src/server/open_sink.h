// Opens a sink by the text of an option --out.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "server/record_sink.h"

namespace veld_report::server {

enum class SinkKind { lines, sqlite, postgres, stream };

// By the scheme of a URL, or else by the end of a path: FILE.sqlite is a database, everything else a file of
// lines. A path that looks like a URL begins with "./". Throws std::invalid_argument with a sentence for a
// scheme that no sink has.
SinkKind SinkKindOf(std::string_view out);

// The text as a log may show it: of a URL without user, password and query.
std::string DisplayName(std::string_view out);

// Throws std::runtime_error with a sentence, and what SinkKindOf throws.
std::unique_ptr<RecordSink> OpenSink(const SinkOptions& options);

}  // namespace veld_report::server
