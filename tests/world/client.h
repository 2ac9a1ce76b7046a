// A request of the simulated HTTP client. The client checks each body against what the walk's reader has
// handed out, and answers as the script says, at its virtual time. Without an answer in the script it is
// status 200 after a millisecond.
#pragma once

#include <vector>

#include "contract/http.h"
#include "tests/world/host.h"

namespace veld_report::world {

class Request final : public Fake<network_services::IHttpRequestHandle> {
 public:
  using Fake::Fake;
  zel::ResultCode ReservedRequestOperation() override { return Reserved(); }
  zel::ResultCode Wait(std::uint32_t timeoutMs) override;
  zel::ResultCode Cancel() override;
  // Tells the callback, and gives up the client's references.
  void Report();

  std::uint32_t id = 0;
  int url = 0;
  const Reader* reader = nullptr;
  std::vector<std::uint64_t> tokens;
  std::uint16_t status = 0;
  zel::ResultCode failure = 0;  // where set, no answer comes
  std::uint64_t dueMs = 0;
  zel::ResultCode waitResult = 0;
  zel::Ref<zel::IIO> body;
  zel::Ref<network_services::IAsyncHttpRequestCallback> callback;

 private:
  bool cancelled_ = false;
};

// Row i of the certificates is (certificates + i, certificates + i + 1).
extern const char certificates[32];

}  // namespace veld_report::world
