#include "host/kit/submission_watch.h"

#include <utility>

#include "host/base/resident_object.h"
#include "host/base/text.h"
#include "host/json/json_storage.h"

namespace veld_report::host {
namespace {

// A plain pointer, so that submitting from a static object's destructor still works.
thread_local SubmissionWatch* current = nullptr;

std::string Place(zel::IObject* context) {
  zel::Ref<zel::ISerializeErrorInfo> info;
  if (!context || zel::Failed(context->QueryInterface(zel::ISerializeErrorInfo::iid, info.OutVoid())))
    return {};
  zel::SerializeErrorLocation location;
  if (zel::Failed(info->GetErrorLocation(&location)) || location.objectName.empty()) return {};
  std::string text = ToStd(location.objectName);
  if (!location.fieldName.empty()) text.append(".").append(View(location.fieldName));
  if (location.index != zel::SerializeErrorLocation::noIndex) {
    text.append("[").append(std::to_string(location.index)).append("]");
  }
  return text;
}

class WatchedSerializer final : public ResidentObject<zel::IStorageSerializer2> {
 public:
  WatchedSerializer(zel::Ref<zel::IStorageSerializer2> inner, zel::Ref<zel::IStorageSerializer2> ofRecords)
      : inner_(std::move(inner)), ofRecords_(std::move(ofRecords)) {}

  zel::ResultCode Serialize(const zel::AnyPtr* object, zel::IStorage* storage, std::uint32_t flag,
                            zel::IObject** context) override {
    const bool isRecord = ofRecords_ && SubmissionWatch::IsOnThisThread();
    const auto& chosen = isRecord ? ofRecords_ : inner_;
    const zel::ResultCode code = chosen->Serialize(object, storage, flag, context);
    return storage ? SubmissionWatch::Note(code, *storage, context ? *context : nullptr) : code;
  }

 private:
  const zel::Ref<zel::IStorageSerializer2> inner_;
  const zel::Ref<zel::IStorageSerializer2> ofRecords_;
};

}  // namespace

SubmissionWatch::SubmissionWatch(std::uint64_t limitBytes)
    : limitBytes_(limitBytes), outer_(std::exchange(current, this)) {}
SubmissionWatch::~SubmissionWatch() { current = outer_; }

bool SubmissionWatch::IsOnThisThread() noexcept { return current != nullptr; }

zel::ResultCode SubmissionWatch::Note(zel::ResultCode code, zel::IStorage& storage,
                                      zel::IObject* context) noexcept {
  if (!current) return code;
  Submission& result = current->result_;
  result.code = code;
  try {
    if (zel::Failed(code)) {
      result.where = Place(context);
    } else {
      zel::Ref<IJsonTextAccess> text;
      const zel::ResultCode found = storage.QueryInterface(IJsonTextAccess::iid, text.OutVoid());
      if (!zel::Failed(found)) result.bytes = text->TextBytes();
      result.tooLarge = result.bytes > current->limitBytes_;
      if (result.tooLarge) result.code = zel::eInvalidArgument;
    }
  } catch (...) {
    // If memory runs out, the location is missing; the code is still noted.
  }
  return result.code;
}

zel::Ref<zel::IStorageSerializer2> CreateWatchedSerializer(zel::Ref<zel::IStorageSerializer2> inner,
                                                           zel::Ref<zel::IStorageSerializer2> ofRecords) {
  return MakeObject<WatchedSerializer>(std::move(inner), std::move(ofRecords));
}

}  // namespace veld_report::host
