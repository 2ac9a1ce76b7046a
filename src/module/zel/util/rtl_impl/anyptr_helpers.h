// LookupMessageDescriptor, for hosts that register structures: gets the descriptor of Message from the host
// instead of from the module's own table.
#pragma once

#include <cstdint>

#include "contract/descriptor.h"
#include "contract/service_locator.h"

namespace zel {

// The only structure that is ever looked up.
inline constexpr std::uint32_t messageSerId = 0xe688adc8;

// Asks MetaInfoProvider; if that is missing or doesn't know the structure, asks MetaInfoRegistry. The
// descriptor is owned by the host. `locator` isn't null. Throws InvalidResultException. Any thread.
const SerObjDescriptor* LookupMessageDescriptor(IServiceLocator* locator);

}  // namespace zel
