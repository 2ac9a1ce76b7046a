#include "formats/payload_text.h"

#include <cstdint>
#include <string_view>

namespace orvel::veld_report {

zel::string BuildPayloadText(const zel::vector_t<zel::string>& items) {
  constexpr std::string_view opening = "{\"array\":[";
  constexpr std::string_view closing = "]}";
  std::uint64_t length = opening.size() + closing.size();
  for (const zel::string& item : items) length += item.size + 1;
  if (!items.empty()) --length;

  zel::string text{zel::types::WithCapacity{length}};
  text.append(opening);
  for (const zel::string& item : items) {
    if (&item != items.first) text.append(",", 1);
    text.append(item.View());
  }
  text.append(closing);
  return text;
}

}  // namespace orvel::veld_report
