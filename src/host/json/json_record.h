// JsonRecord: a record that exists only as finished JSON text.
//
// It gives lines of a file, or the output of another library, the same path as described structures. The text
// is checked when it is serialised, not when the record is made.
#pragma once

#include <string>

#include "contract/descriptor.h"

namespace veld_report::host {

struct JsonRecord {
  std::string text;  // one JSON value

  // One field of the kind "JSON text" with an empty name; constant, of static lifetime.
  static const zel::SerObjDescriptor* Descriptor();
  // For SendStatistic, which doesn't keep the record. The record must outlive the result.
  zel::AnyPtr AsAny() { return zel::AnyPtr(this, Descriptor()); }
};

}  // namespace veld_report::host
