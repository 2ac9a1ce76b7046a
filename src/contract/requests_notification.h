// Notifies the host of each completed request. Optional.
#pragma once

#include <cstddef>

#include "types/basic_string.h"
#include "types/object.h"

namespace orvel {

struct RequestNotification {
  zel::string source;  // always "VeldRep"
  // 0 for status 200, 0x80000071 "Invalid result" for any other status, the client's code if there was no
  // answer.
  zel::ResultCode resultCode = zel::sOk;
  zel::string url;  // UTF-8
};
static_assert(sizeof(RequestNotification) == 104);
static_assert(offsetof(RequestNotification, resultCode) == 48 && offsetof(RequestNotification, url) == 56);

class IRequestsNotification : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x09f6a0bf;
  // The record is valid during the call. Called on a thread of the HTTP client; the result is ignored.
  virtual zel::ResultCode OnRequestFinished(const RequestNotification* notification) = 0;

 protected:
  ~IRequestsNotification() = default;
};

}  // namespace orvel
