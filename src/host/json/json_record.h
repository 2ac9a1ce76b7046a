// JsonRecord, a record that is known only as finished JSON text.
//
// It is how a line of a file, or what another library made, goes through the same door as a described
// structure. The text is checked when it is serialised, not when the record is made.
#pragma once

#include <string>

#include "contract/descriptor.h"

namespace veld_report::host {

struct JsonRecord {
  std::string text;  // one JSON value

  // One field of the kind "JSON text" with an empty name; constant, of static lifetime.
  static const zel::SerObjDescriptor* Descriptor();
  // For SendStatistic, which is done with the record when it returns. The record must outlive the result.
  zel::AnyPtr AsAny() { return zel::AnyPtr(this, Descriptor()); }
};

}  // namespace veld_report::host
