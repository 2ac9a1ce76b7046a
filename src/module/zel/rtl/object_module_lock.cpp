#include "zel/rtl/object_module_lock.h"

namespace zel {

constinit std::atomic<std::uint32_t> ModuleObjectCount{0};

}  // namespace zel
