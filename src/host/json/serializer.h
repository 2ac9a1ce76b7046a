// The serialiser of the host kit: it walks a described record and writes it into a storage as JSON.
//
// It differs from a general JSON library in that it knows records only by their descriptors
// (host/json/field_kinds.h) and reads nothing back.
#pragma once

#include "contract/json.h"
#include "types/ref.h"

namespace veld_report::host {

// A shared, stateless service. Threads: any.
//
// Serialize takes a storage of CreateJsonStorageFactory, else it answers 0x80000042 "Not supported"; a
// storage takes one record, the second gets 0x8000006a "Invalid state". On a failure of the walk (the codes
// are told at RecordWalk::Record) `*context` receives an object with ISerializeErrorInfo: the innermost
// record, its field, and the index of the element in the innermost vector on the way there. The storage then
// refuses its Flush with the same code. `flag` isn't looked at.
zel::Ref<zel::IStorageSerializer2> CreateSerializer();

}  // namespace veld_report::host
