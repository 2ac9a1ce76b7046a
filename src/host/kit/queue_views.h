// What each of the kit's two senders sees of the queues (host_kit.h).
//
// Both have the same settings, so both would remove the queues of former urls. A sender that still works by
// earlier settings could then remove a queue into which the other one has just put something, so only the one
// that fills the queues removes any. And it doesn't read any: after its drain it finds no queue to walk
// through.
#pragma once

#include "contract/queue.h"
#include "host/kit/drain_watch.h"
#include "types/ref.h"

namespace veld_report::host {

// For the sender that takes records, whose drains `drains` knows.
zel::Ref<orvel::IQueueFactory> QueuesToFill(zel::Ref<orvel::IQueueFactory> queues,
                                            zel::Ref<DrainWatch> drains);
// For the sender that delivers.
zel::Ref<orvel::IQueueFactory> QueuesToEmpty(zel::Ref<orvel::IQueueFactory> queues);

}  // namespace veld_report::host
