// RequestGate decides whether the clients of one factory may send at all.
//
// An engine holds the gate while libcurl works, so once the gate is shut, no byte of a request is sent.
// Refusing new requests wouldn't be enough: those in flight would go on, and one that was just accepted is
// about to start.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace veld_report::host {

class HttpEngine;

// Threads: any.
class RequestGate {
 public:
  // Held by an engine around libcurl's work.
  class Pass {
   public:
    explicit Pass(RequestGate& gate) : lock_(gate.mutex_), shuts_(gate.shuts_) {}
    // Whether a request with this admission may go on.
    bool Holds(std::uint64_t admission) const { return admission == shuts_; }

   private:
    const std::lock_guard<std::mutex> lock_;
    const std::uint64_t shuts_;
  };

  // The admission of a request that begins; none while the gate is shut. Shutting it ends all admissions,
  // also if it opens again before an engine has looked.
  std::optional<std::uint64_t> Admit();
  // Opens or shuts the gate. Waits for no server and no completion.
  void Allow(bool allowed);
  // Engines are woken when the gate shuts.
  void Add(HttpEngine* engine);
  void Remove(HttpEngine* engine);

 private:
  std::mutex mutex_;  // guards the members below; held across libcurl's work and the wake-up of engines
  bool open_ = true;
  std::uint64_t shuts_ = 0;
  std::vector<HttpEngine*> engines_;
};

}  // namespace veld_report::host
