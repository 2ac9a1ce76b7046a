// BuildPayloadText joins the items of one packet into one text: {"array":[ITEM,ITEM]}.
#pragma once

#include "types/basic_string.h"
#include "types/vector.h"

namespace orvel::veld_report {

// The items are copied by their stored length, unescaped and unchecked. The text is allocated once and has no
// allocator. Throws std::length_error and std::bad_alloc.
zel::string BuildPayloadText(const zel::vector_t<zel::string>& items);

}  // namespace orvel::veld_report
