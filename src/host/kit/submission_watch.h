// SubmissionWatch reports the outcome of a submission, which the sender itself doesn't.
//
// SendStatistic always returns 0. But it serialises on the caller's thread, through the host's own service.
// So the serialiser knows the outcome and notes it for that thread.
#pragma once

#include <cstdint>
#include <string>

#include "contract/json.h"
#include "types/ref.h"

namespace veld_report::host {

// The outcome of a submission. `where` names the field that stopped it ("Message.signatures[0]"), if one did.
struct Submission {
  zel::ResultCode code = zel::sOk;
  std::string where{};
  std::uint64_t bytes = 0;  // of the record's text; 0 if there is none
  bool tooLarge = false;    // it was refused because of these bytes

  bool Accepted() const { return !zel::Failed(code); }
};

// While it lives, it notes what the watching serialiser does on this thread. Watches nest.
class SubmissionWatch {
 public:
  // A text of more than `limitBytes` makes the serialiser fail with 0x80000046 "Invalid argument", so that
  // the sender doesn't take it.
  explicit SubmissionWatch(std::uint64_t limitBytes);
  SubmissionWatch(const SubmissionWatch&) = delete;
  SubmissionWatch& operator=(const SubmissionWatch&) = delete;
  ~SubmissionWatch();

  // 0x8000006b "Not initialized" if there was no serialisation.
  Submission Take() { return std::move(result_); }

  static bool IsOnThisThread() noexcept;
  // For the serialiser, which returns the result. Changes nothing on a thread without a watch.
  static zel::ResultCode Note(zel::ResultCode code, zel::IStorage& storage, zel::IObject* context) noexcept;

 private:
  Submission result_{zel::eNotInitialized};
  const std::uint64_t limitBytes_;
  SubmissionWatch* const outer_;
};

// A serialiser that acts like `inner` and notes the outcome. On a thread with a watch it acts like
// `ofRecords`, if that isn't null: the sender also has its own messages serialised, on other threads.
zel::Ref<zel::IStorageSerializer2> CreateWatchedSerializer(zel::Ref<zel::IStorageSerializer2> inner,
                                                           zel::Ref<zel::IStorageSerializer2> ofRecords = {});

}  // namespace veld_report::host
