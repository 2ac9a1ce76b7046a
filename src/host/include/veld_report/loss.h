// A loss of records, as a reporter's loss listener gets it.
#pragma once

#include <functional>
#include <string>

#include "veld_report/queue_ledger.h"

namespace veld_report {

// The figures of the ledger (queue_ledger.h), but apart: what expired isn't evicted here, and what was
// damaged isn't removed.
enum class LossReason { evicted, expired, rejected, removed, damaged };

// "evicted", as in the ledger.
inline const char* LossReasonText(LossReason reason) {
  switch (reason) {
    case LossReason::evicted:
      return "evicted";
    case LossReason::expired:
      return "expired";
    case LossReason::rejected:
      return "rejected";
    case LossReason::removed:
      return "removed";
    case LossReason::damaged:
      break;
  }
  return "damaged";
}

struct Loss {
  std::string url{};  // of the endpoint, without user and password; empty if it isn't known
  LossReason reason = LossReason::evicted;
  ItemCount count{};  // since the last call with this url and reason. 0 items: it isn't known how many
  std::string why{};  // a sentence
};

// Called soon after a loss, for each url and reason, and then at most once a second with what was lost since.
// It runs on a thread of its own, so it holds up neither sending nor storing; a Close waits for it as for a
// Listener. It must not close or destroy the reporter. Its exceptions are dropped.
//
// If processes share a store, each one reports the losses that it causes. What a killed process had in memory
// is in no ledger and is never reported.
using LossListener = std::function<void(const Loss&)>;

}  // namespace veld_report
