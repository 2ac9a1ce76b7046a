// The descriptors of Message and Signature: constant tables, initialised at load, for the host's serialiser.
//
// They are reached through zel::StaticDescriptor<Message>::pointer and <Signature>, which are never null in
// this module. Any thread.
#pragma once

#include "contract/descriptor.h"
#include "formats/descriptor_helpers.h"
#include "formats/message.h"

namespace zel {

template <>
const SerObjDescriptor* const StaticDescriptor<orvel::veld_report::Signature>::pointer;
template <>
const SerObjDescriptor* const StaticDescriptor<orvel::veld_report::Message>::pointer;

}  // namespace zel

namespace orvel::veld_report {

// The vector helper that no row of this module uses.
extern zel::NoSerVectorHelperImpl<void> noVectorHelper;

}  // namespace orvel::veld_report
