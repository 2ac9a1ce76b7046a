// The serialiser of the host kit: walks a described record and writes it to a storage as JSON.
//
// It differs from a general JSON library in that it knows records only by their descriptors
// (veld_report/field_kinds.h) and reads nothing back.
#pragma once

#include <memory>

#include "contract/json.h"
#include "host/json/record_stamp.h"
#include "types/ref.h"

namespace veld_report::host {

// A shared service. Threads: any.
//
// Serialize takes a storage of CreateJsonStorageFactory; with any other it returns 0x80000042 "Not
// supported". A storage takes one record; a second one returns 0x8000006a "Invalid state". If the walk fails
// (RecordWalk::Record lists the codes), `*context` receives an object with ISerializeErrorInfo: the innermost
// record, its field, and the index in the innermost vector on the path to it. The storage's Flush then fails
// with the same code. `flag` is ignored.
// `stamp` adds its members to each record that is an object; it may be null.
zel::Ref<zel::IStorageSerializer2> CreateSerializer(std::shared_ptr<const RecordStamp> stamp = {});

}  // namespace veld_report::host
