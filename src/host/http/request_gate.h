// RequestGate decides whether the clients of one factory may send at all.
//
// An engine holds the gate while libcurl works, so once the gate is shut, no byte of a request is sent.
// Refusing new requests wouldn't be enough: those in flight would go on, and one that was just accepted is
// about to start.
#pragma once

#include <mutex>
#include <vector>

namespace veld_report::host {

class HttpEngine;

// Threads: any.
class RequestGate {
 public:
  // Held by an engine around libcurl's work. False if the gate is shut: then everything in flight must end.
  class Pass {
   public:
    explicit Pass(RequestGate& gate) : lock_(gate.mutex_), open_(gate.open_) {}
    explicit operator bool() const { return open_; }

   private:
    const std::lock_guard<std::mutex> lock_;
    const bool open_;
  };

  // Opens or shuts the gate. Waits for no server and no completion.
  void Allow(bool allowed);
  // Adds an engine, which is woken when the gate shuts.
  void Add(HttpEngine* engine);
  void Remove(HttpEngine* engine);

 private:
  std::mutex mutex_;  // guards both; held while libcurl works and engines are woken
  bool open_ = true;
  std::vector<HttpEngine*> engines_;
};

}  // namespace veld_report::host
