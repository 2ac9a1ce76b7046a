// RecordWalk walks over one described record and writes it as JSON. Part of the serialiser.
#pragma once

#include <cstdint>
#include <string>

#include "contract/descriptor.h"
#include "contract/json.h"
#include "host/json/json_check.h"
#include "host/json/json_text_writer.h"
#include "host/json/record_stamp.h"

namespace veld_report::host {

// Where a walk stopped: the innermost record, its field, and the index in the innermost vector on the path to
// it.
struct WalkLocation {
  std::string objectName;
  std::string fieldName;
  std::uint32_t index = zel::SerializeErrorLocation::noIndex;
};

// Life: made -> walked once. For one thread. What the constructor gets must outlive it.
class RecordWalk {
 public:
  // The maximum nesting depth of records, and of containers in containers. Deeper nesting can only be a
  // descriptor that contains itself.
  static constexpr std::uint32_t depthLimit = 64;

  // `stamp` may be null. Otherwise its members are added to the record, if that is an object. A member that
  // the record has already stays as it is; a field of a structure counts even if it is optional and empty.
  RecordWalk(JsonTextWriter& out, JsonCheck& check, const RecordStamp* stamp = nullptr)
      : out_(out), check_(check), stamp_(stamp) {}

  // Returns 0 or the first failure, with Location() set. 0x80000046 "Invalid argument": the descriptor is
  // broken (an unexpected null pointer, an unknown kind or flag, a width that doesn't exist, a serId that
  // isn't the element's), or a text that has to be JSON isn't. 0x80000042 "Not supported": the depth limit.
  // Otherwise the code of a helper or of the stream. Exceptions of helpers pass through.
  zel::ResultCode Record(const zel::SerObjDescriptor* descriptor, void* object);
  const WalkLocation& Location() const { return location_; }

 private:
  class MapEntries;
  struct Elements {
    std::uint32_t count = 0;
    std::uint32_t size = 0;                             // of one element, in bytes; only for plain values
    const zel::SerObjDescriptor* descriptor = nullptr;  // only for records
  };

  zel::ResultCode Object(const zel::SerObjDescriptor& descriptor, void* object);
  zel::ResultCode Member(const zel::SerFieldDescriptor& row, void* object, bool* first);
  zel::ResultCode BareValue(const zel::SerFieldDescriptor& row, void* object);
  zel::ResultCode Inspect(const zel::SerFieldDescriptor& row, void* object, Elements* elements);
  zel::ResultCode Contents(const zel::SerFieldDescriptor& row, void* object, const Elements& elements);
  zel::ResultCode Element(const zel::SerFieldDescriptor& row, void* field, const Elements& elements,
                          std::uint32_t index);
  zel::ResultCode ElementAt(const zel::SerFieldDescriptor& row, void* element, const Elements& elements);
  zel::ResultCode Map(const zel::SerFieldDescriptor& row, void* field, const Elements& elements);
  zel::ResultCode Array(const zel::SerFieldDescriptor& row, void* field, const Elements& elements);
  zel::ResultCode Value(std::uint32_t kind, const void* value, std::uint64_t size);
  zel::ResultCode Time(std::uint32_t kind, std::int64_t ticks);
  zel::ResultCode JsonText(std::string_view text);
  zel::ResultCode StampedText(std::string_view text);
  void WithoutBreaks(std::string_view text);
  void Locate(const zel::SerObjDescriptor& descriptor, const zel::SerFieldDescriptor& row);

  JsonTextWriter& out_;
  JsonCheck& check_;
  const RecordStamp* const stamp_;
  WalkLocation location_;
  bool located_ = false;
  std::uint32_t depth_ = 0;
  std::uint32_t objectDepth_ = 0;  // without the structures that are no objects; not kept after a failure
};

}  // namespace veld_report::host
