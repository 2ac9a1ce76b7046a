// SubmissionWatch: what became of a submission, which the sender itself doesn't tell.
//
// SendStatistic answers 0 whatever happened in it. But it serialises on the caller's thread, through the
// host's own service, so a serialiser that notes its result for the thread in question knows.
#pragma once

#include <string>

#include "contract/json.h"
#include "types/ref.h"

namespace veld_report::host {

// How a submission ended. `where` says which field stopped it ("Message.signatures[0]"), if one did.
struct Submission {
  zel::ResultCode code = zel::sOk;
  std::string where{};

  bool Accepted() const { return !zel::Failed(code); }
};

// Notes what the watching serialiser does on this thread while the object lives. Watches nest.
class SubmissionWatch {
 public:
  SubmissionWatch();
  SubmissionWatch(const SubmissionWatch&) = delete;
  SubmissionWatch& operator=(const SubmissionWatch&) = delete;
  ~SubmissionWatch();

  // 0x8000006b "Not initialized" if no serialisation has run.
  Submission Take() { return std::move(result_); }

  // For the serialiser. Does nothing on a thread without a watch.
  static void Note(zel::ResultCode code, zel::IObject* context) noexcept;

 private:
  Submission result_{zel::eNotInitialized};
  SubmissionWatch* const outer_;
};

// A serialiser that does what `inner` does and notes the outcome.
zel::Ref<zel::IStorageSerializer2> CreateWatchedSerializer(zel::Ref<zel::IStorageSerializer2> inner);

}  // namespace veld_report::host
