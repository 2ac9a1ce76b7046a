#include "host/http/request_gate.h"

#include "host/http/http_engine.h"

namespace veld_report::host {

void RequestGate::Allow(bool allowed) {
  const std::lock_guard lock(mutex_);
  open_ = allowed;
  if (allowed) return;
  for (HttpEngine* engine : engines_) engine->Wake();
}

void RequestGate::Add(HttpEngine* engine) {
  const std::lock_guard lock(mutex_);
  engines_.push_back(engine);
}

void RequestGate::Remove(HttpEngine* engine) {
  const std::lock_guard lock(mutex_);
  std::erase(engines_, engine);
}

}  // namespace veld_report::host
