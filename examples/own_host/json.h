// The two JSON services. Only the kinds of field that the module's own records use are known here: narrow
// strings and vectors of records. A host adds the kinds that its producers need.
#pragma once

#include "contract/json.h"
#include "counted.h"

namespace own_host {

class JsonStorageFactory final : public Counted<zel::IJsonStorageFactory> {
 public:
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override;
};

class Serializer final : public Counted<zel::IStorageSerializer2> {
 public:
  // Writes into storages of JsonStorageFactory only.
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** context) override;
};

}  // namespace own_host
