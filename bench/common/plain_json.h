// JSON services of hosts that are simpler than the kit's, to measure the module with.
#pragma once

#include <string>

#include "contract/json.h"
#include "types/ref.h"

namespace veld_report::bench {

// Storages for both serialisers below.
zel::Ref<zel::IJsonStorageFactory> CreatePlainStorages();
// Buffers nothing: each token is a Write of its own into the module's stream. Knows the kinds of field of
// bench/common/record.h, and texts that need no escapes.
zel::Ref<zel::IStorageSerializer2> CreateTokenSerializer();
// Looks at no record and writes `text` in one piece.
zel::Ref<zel::IStorageSerializer2> CreatePlainSerializer(std::string text);

}  // namespace veld_report::bench
