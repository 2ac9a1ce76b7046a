// The two functions that the module exports, and the id of the class that it can make.
//
// A host loads the library at run time, so these are the types of what dlsym returns. Order of use:
// zelGetObjectFactory, CreateInstance, Construct, SendStatistic, the last Release. Before dlclose, call
// zelCanUnloadModule until it returns 0.
#pragma once

#include "contract/object_factory.h"

namespace orvel::veld_report {

// The only class id that zelGetObjectFactory accepts; for others it returns 0x80000043 "Not implemented".
inline constexpr std::uint32_t senderClassId = 0x36c3b519;

// `locator` may be null; it is only used to trace a failure. `*out` receives an IObjectFactory.
using GetObjectFactoryFunction = zel::ResultCode(zel::IServiceLocator* locator, std::uint32_t classId,
                                                 zel::IObject** out);
// Returns 0 if no object of the module is alive, otherwise 1.
using CanUnloadModuleFunction = zel::ResultCode();

inline constexpr char getObjectFactoryName[] = "zelGetObjectFactory";
inline constexpr char canUnloadModuleName[] = "zelCanUnloadModule";

}  // namespace orvel::veld_report
