// RequestGate: whether the clients of one factory may send at all.
//
// An engine holds the gate while it lets libcurl work, so once the gate is shut no byte of a request leaves
// any more. Refusing new requests alone wouldn't do: those in flight go on, and one that has just been
// accepted is about to begin.
#pragma once

#include <mutex>
#include <vector>

namespace veld_report::host {

class HttpEngine;

// Threads: any.
class RequestGate {
 public:
  // Held by an engine around libcurl's work. False if the gate is shut: then everything in flight has to end.
  class Pass {
   public:
    explicit Pass(RequestGate& gate) : lock_(gate.mutex_), open_(gate.open_) {}
    explicit operator bool() const { return open_; }

   private:
    const std::lock_guard<std::mutex> lock_;
    const bool open_;
  };

  // Opens or shuts it. Waits for no server and no completion.
  void Allow(bool allowed);
  // Engines are woken when the gate shuts.
  void Add(HttpEngine* engine);
  void Remove(HttpEngine* engine);

 private:
  std::mutex mutex_;  // guards both; held across libcurl's work and the wake-up of engines
  bool open_ = true;
  std::vector<HttpEngine*> engines_;
};

}  // namespace veld_report::host
