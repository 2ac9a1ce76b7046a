// The two JSON services. They only know the kinds of field of the module's own records: narrow strings and
// vectors of records. Add the kinds that your producers need.
#pragma once

#include "counted.h"
#include "veld_report/contract/json.h"

namespace own_host {

class JsonStorageFactory final : public Counted<zel::IJsonStorageFactory> {
 public:
  zel::ResultCode CreateJsonStorage(zel::IIO* stream, const zel::JsonStorageOptions* options,
                                    zel::IStorage** out) override;
};

class Serializer final : public Counted<zel::IStorageSerializer2> {
 public:
  // Only writes to storages of JsonStorageFactory.
  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** context) override;
};

}  // namespace own_host
