// The services of the simulated host.
#pragma once

#include "contract/descriptor.h"
#include "tests/world/host.h"

namespace veld_report::world {

// A producer's record, whose string is its whole JSON.
struct TextRecord {
  zel::string text;
};
extern const zel::SerObjDescriptor textRecord;

// Each has one reference, the host's.
zel::IObject* MakeClientFactory(Host& host);
zel::IObject* MakeQueueFactory(Host& host);
zel::IObject* MakeJsonFactory(Host& host);
zel::IObject* MakeSerializer(Host& host);
// All services, and the locator that gives them out.
void AddServices(Host& host);

}  // namespace veld_report::world
