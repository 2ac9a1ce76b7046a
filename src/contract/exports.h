// The two functions that the module exports, and the class that it can make.
//
// A host loads the library at run time, so these are types for what dlsym finds. Order of use:
// zelGetObjectFactory, CreateInstance, Construct, SendStatistic, the last Release, and then
// zelCanUnloadModule until it answers 0, before dlclose.
#pragma once

#include "contract/object_factory.h"

namespace orvel::veld_report {

// The only class id that zelGetObjectFactory accepts; any other gives 0x80000043 "Not implemented".
inline constexpr std::uint32_t senderClassId = 0x36c3b519;

// `locator` may be null; it only serves to find a tracer for a failure. `*out` receives an IObjectFactory.
using GetObjectFactoryFunction = zel::ResultCode(zel::IServiceLocator* locator, std::uint32_t classId,
                                                 zel::IObject** out);
// 0 when no object of the module is alive, 1 otherwise.
using CanUnloadModuleFunction = zel::ResultCode();

inline constexpr char getObjectFactoryName[] = "zelGetObjectFactory";
inline constexpr char canUnloadModuleName[] = "zelCanUnloadModule";

}  // namespace orvel::veld_report
