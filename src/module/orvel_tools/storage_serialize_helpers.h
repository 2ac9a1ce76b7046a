// Calls the host's serialiser: one described object into one storage.
#pragma once

#include <cstdint>

#include "contract/descriptor.h"
#include "contract/json.h"
#include "contract/service_locator.h"
#include "types/basic_string.h"

namespace orvel_tools {

// Serialises `object` into `storage` and flushes it. The serialiser is looked up for each call. `flag` is 1
// or 0. Throws zel::SystemException with the failed call's code.
void SerializeToStorage(zel::IServiceLocator* locator, const zel::AnyPtr& object, zel::IStorage* storage,
                        std::uint32_t flag);

// The text of a failed Serialize: "Serialize", and the location if `context`, which may be null, provides it.
// Throws std::bad_alloc only before it appends the location; a failure after that cuts the text short.
zel::wstring SerializeFailureText(zel::IObject* context);

}  // namespace orvel_tools
