// The JSON storage of the host kit: one JSON text written into a stream, for the serialiser beside it.
#pragma once

#include "contract/json.h"
#include "host/json/json_text_writer.h"
#include "types/ref.h"

namespace veld_report::host {

// How the serialiser reaches the text of a storage. The storages of CreateJsonStorageFactory offer it; it
// never leaves the host.
class IJsonTextAccess : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x4b1d7a90;
  // The writer for the one value of this storage; null from the second call on: a text holds one value.
  // Belongs to the storage.
  virtual JsonTextWriter* BeginValue() = 0;

 protected:
  ~IJsonTextAccess() = default;
};

// Makes storages that write compact JSON. All four options are accepted and none changes the text. A storage
// belongs to one thread at a time and keeps its stream until it goes. Its Flush answers the first failure of
// the stream or of the serialisation, and writes nothing more after one. Threads: any.
zel::Ref<zel::IJsonStorageFactory> CreateJsonStorageFactory();

}  // namespace veld_report::host
