// Turns a described object into JSON text with the host's JSON storage and serialiser.
//
// The module writes no JSON itself; this is a thin layer around those two services. The text is written in
// place, to the string that is returned. The services are looked up on every call, and no reference is kept.
// Any thread; no lock is taken.
#pragma once

#include "contract/descriptor.h"
#include "contract/service_locator.h"
#include "formats/message.h"
#include "types/basic_string.h"

namespace orvel_tools {

// Returns the JSON text, without allocator. `locator` isn't null. Throws zel::SystemException with the failed
// call's code, and std::bad_alloc.
zel::string SerializeToJson(zel::IServiceLocator* locator, const zel::AnyPtr& object);

// The same for the message of a request.
zel::string SerializeMessageToJson(zel::IServiceLocator* locator, const orvel::veld_report::Message& message);

}  // namespace orvel_tools
