// A JSON storage and serialiser that buffer nothing: each token is a Write of its own into the module's
// stream, as a plain serialiser of a host may do it. They know the fields of bench/common/record.h.
#pragma once

#include "contract/json.h"
#include "types/ref.h"

namespace veld_report::bench {

zel::Ref<zel::IJsonStorageFactory> CreateTokenStorages();
zel::Ref<zel::IStorageSerializer2> CreateTokenSerializer();

}  // namespace veld_report::bench
