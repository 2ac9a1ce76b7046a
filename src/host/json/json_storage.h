// The JSON storage of the host kit: one JSON text written to a stream, for the serialiser of this folder.
#pragma once

#include "contract/json.h"
#include "host/json/json_text_writer.h"
#include "types/ref.h"

namespace veld_report::host {

// The serialiser's access to the text of a storage. The storages of CreateJsonStorageFactory implement it; it
// never leaves the host.
class IJsonTextAccess : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x4b1d7a90;
  // The writer for the storage's one value. Null from the second call on, since a text holds one value. Owned
  // by the storage.
  virtual JsonTextWriter* BeginValue() = 0;
  // The length of the text so far.
  virtual std::uint64_t TextBytes() const = 0;

 protected:
  ~IJsonTextAccess() = default;
};

// Makes storages that write compact JSON. All four options are accepted and none changes the text. A storage
// is for one thread at a time and holds its stream until its end. Its Flush returns the first failure of the
// stream or of the serialisation, and after one it writes nothing. Threads: any.
zel::Ref<zel::IJsonStorageFactory> CreateJsonStorageFactory();

}  // namespace veld_report::host
