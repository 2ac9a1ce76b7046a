// The host's JSON services: a storage that writes JSON to a stream, and a serialiser that walks a described
// record into a storage. Looked up for each serialisation, on producers' threads and on the timer's.
#pragma once

#include <cstddef>

#include "contract/descriptor.h"
#include "contract/io.h"
#include "types/basic_string.h"
#include "types/object.h"

namespace zel {

// The module always passes these values. Their meaning is up to the storage, except for `flag`, which the
// module also passes to Serialize.
struct JsonStorageOptions {
  std::int32_t first = -1;
  std::int32_t second = -1;
  std::uint8_t flag = 1;
  std::uint8_t secondFlag = 0;
};
static_assert(sizeof(JsonStorageOptions) == 12 && offsetof(JsonStorageOptions, flag) == 8);
static_assert(offsetof(JsonStorageOptions, second) == 4 && offsetof(JsonStorageOptions, secondFlag) == 9);

// One JSON text in progress. How a serialiser writes to it is up to the host's two services.
class IStorage : public IObject {
 public:
  virtual ResultCode ReservedStorageOperation0() = 0;
  virtual ResultCode ReservedStorageOperation1() = 0;
  virtual ResultCode ReservedStorageOperation2() = 0;
  virtual ResultCode ReservedStorageOperation3() = 0;
  virtual ResultCode ReservedStorageOperation4() = 0;
  virtual ResultCode ReservedStorageOperation5() = 0;
  virtual ResultCode ReservedStorageOperation6() = 0;
  virtual ResultCode ReservedStorageOperation7() = 0;
  virtual ResultCode ReservedStorageOperation8() = 0;
  virtual ResultCode ReservedStorageOperation9() = 0;
  virtual ResultCode ReservedStorageOperation10() = 0;
  virtual ResultCode ReservedStorageOperation11() = 0;
  // On success the text is complete in the stream.
  virtual ResultCode Flush() = 0;

 protected:
  ~IStorage() = default;
};

class IJsonStorageFactory : public IObject {
 public:
  static constexpr InterfaceId iid = 0x2d52630a;
  // `stream` receives the text; the storage takes a reference. `options` is valid during the call.
  virtual ResultCode CreateJsonStorage(IIO* stream, const JsonStorageOptions* options, IStorage** out) = 0;

 protected:
  ~IJsonStorageFactory() = default;
};

// Writes a record as one JSON object: its fields in the order of their table, by name.
class IStorageSerializer2 : public IObject {
 public:
  static constexpr InterfaceId iid = 0x7cc64bff;
  // `flag` is always 1. `*context` is null on entry. On failure it may receive a new reference to an object
  // with the location of the failure (ISerializeErrorInfo).
  virtual ResultCode Serialize(const AnyPtr* object, IStorage* storage, std::uint32_t flag,
                               IObject** context) = 0;

 protected:
  ~IStorageSerializer2() = default;
};

// Where a serialisation stopped.
struct SerializeErrorLocation {
  static constexpr std::uint32_t noIndex = 0xffffffff;
  string objectName;
  string fieldName;
  std::uint32_t reserved = 0;  // set by the service, not read by the module
  std::uint32_t index = 0;     // of the element in a vector field, or noIndex
};
static_assert(sizeof(SerializeErrorLocation) == 104 && offsetof(SerializeErrorLocation, fieldName) == 48);
static_assert(offsetof(SerializeErrorLocation, reserved) == 96 &&
              offsetof(SerializeErrorLocation, index) == 100);

class ISerializeErrorInfo : public IObject {
 public:
  static constexpr InterfaceId iid = 0xfec74de4;
  virtual ResultCode ReservedErrorOperation() = 0;
  // Fills in the location. Its strings are empty on entry.
  virtual ResultCode GetErrorLocation(SerializeErrorLocation* location) = 0;

 protected:
  ~ISerializeErrorInfo() = default;
};

}  // namespace zel
