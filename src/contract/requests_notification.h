// How the host hears of each finished request. Optional.
#pragma once

#include <cstddef>

#include "types/basic_string.h"
#include "types/object.h"

namespace orvel {

struct RequestNotification {
  zel::string source;  // always "VeldRep"
  // 0 for status 200, 0x80000071 "Invalid result" for another status, the client's code for no answer.
  zel::ResultCode resultCode = zel::sOk;
  zel::string url;  // UTF-8
};
static_assert(sizeof(RequestNotification) == 104);
static_assert(offsetof(RequestNotification, resultCode) == 48 && offsetof(RequestNotification, url) == 56);

class IRequestsNotification : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x09f6a0bf;
  // The record is valid during the call. Runs on a thread of the HTTP client; the result isn't looked at.
  virtual zel::ResultCode OnRequestFinished(const RequestNotification* notification) = 0;

 protected:
  ~IRequestsNotification() = default;
};

}  // namespace orvel
