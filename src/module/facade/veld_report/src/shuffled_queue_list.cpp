#include "facade/veld_report/src/shuffled_queue_list.h"

#include <cstdlib>

#include "facade/veld_report/src/sender_records.h"
#include "facade/veld_report/src/shuffle.h"
#include "facade/veld_report/src/throw_sites.h"
#include "types/ref.h"

namespace orvel::veld_report {
namespace {

// The runtime's source, which the module never seeds. If its range is wider, the low 15 bits are used, so
// that no number is skipped for its range.
std::uint32_t RuntimeRandom15() { return static_cast<std::uint32_t>(std::rand()) & 32767u; }

}  // namespace

ShuffledQueueList::ShuffledQueueList(IQueueFactory* queueFactory) {
  zel::Ref<IQueueManager> manager;
  Require(queueFactory->CreateQueueManager(QueueDomain(), manager.Out()), site::createQueueManager);
  Require(manager->EnumerateQueues(&names), site::enumerateQueues);
  Shuffle(names, RuntimeRandom15);
}

}  // namespace orvel::veld_report
