// CheckSink: whether a server could open a sink, as far as that can be said without changing anything.
#pragma once

#include <string>

namespace veld_report::server {

// `out`: as OpenSink (open_sink.h) takes it. Of a file it looks at its kind, its rights and its beginning, of
// one that doesn't exist at its folder. Databases and brokers elsewhere aren't contacted, and whether another
// process writes the file isn't looked at. Throws std::runtime_error with a sentence.
void CheckSink(const std::string& out);

// Whether files can be made there, or the folder itself if it doesn't exist. Throws likewise.
void CheckFolder(const std::string& folder);

}  // namespace veld_report::server
