// The files of the page, embedded in the program at build time (EmbedAssets.cmake).
#pragma once

#include <string_view>

namespace veld_report::server {

struct PageAsset {
  std::string_view path;  // of the request: "/page.css"
  std::string_view contentType;
  std::string_view text;
};

// Null if there is none with that path.
const PageAsset* FindPageAsset(std::string_view path);

}  // namespace veld_report::server
