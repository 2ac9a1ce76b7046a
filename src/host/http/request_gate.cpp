#include "host/http/request_gate.h"

#include "host/http/http_engine.h"

namespace veld_report::host {

void RequestGate::Allow(bool allowed) {
  const std::lock_guard lock(mutex_);
  open_ = allowed;
  if (allowed) return;
  ++shuts_;
  for (HttpEngine* engine : engines_) engine->Wake();
}

std::optional<std::uint64_t> RequestGate::Admit() {
  const std::lock_guard lock(mutex_);
  return open_ ? std::optional(shuts_) : std::nullopt;
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
