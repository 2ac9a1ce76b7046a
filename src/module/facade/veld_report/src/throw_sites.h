// The sites where the sender throws, each with its fixed path, line and text.
//
// Support engineers search traces for these three, so they are constants that don't move with the code. If a
// text has two rows, the line identifies the operation.
#pragma once

#include <cstdint>

#include "zel/rtl/error_handling/exceptions.h"

namespace orvel::veld_report {

struct ThrowSite {
  std::int32_t line;
  const char16_t* text;
};

inline constexpr char senderUnit[] = "facade/veld_report/src/veld_report_sender";

namespace site {
inline constexpr ThrowSite createQueueManager{105, u"Can not create IQueueManager"};
inline constexpr ThrowSite enumerateQueues{106, u"Can not enumerate queues"};
inline constexpr ThrowSite createBodyStream{364, u"Cann't create io with data"};
inline constexpr ThrowSite makeRequest{372, u"MakeRequestAsync failed"};
inline constexpr ThrowSite replaceProducer{405, u"Can not create Queue producer"};
inline constexpr ThrowSite createProducer{458, u"Can not create Queue producer"};
inline constexpr ThrowSite createEvictingConsumer{470, u"Can not create AckConsumer"};
inline constexpr ThrowSite createWalkConsumer{544, u"Can not create AckConsumer"};
inline constexpr ThrowSite createCallback{558, u"Can not create callback"};
inline constexpr ThrowSite getQueueFactory{697, u"IQueueFactory not available"};
inline constexpr ThrowSite getHttpClientFactory{700, u"Cann't get IHttpClientFactory iface"};
inline constexpr ThrowSite createHttpClient{701, u"Cann't create IHttpClient"};
inline constexpr ThrowSite applySettings{739, u"SetSettings failed. Check component settings"};
}  // namespace site

// Throws a zel::SystemException with that site if `code` is negative.
inline void Require(zel::ResultCode code, const ThrowSite& where) {
  if (zel::Failed(code)) zel::ThrowSystemException(senderUnit, where.line, code, where.text);
}

}  // namespace orvel::veld_report
