// A fixed long life of a sender that takes every branch, for sweeps: some call or allocation in it fails, and
// whatever that was, the rules about items, references and memory still hold.
//
// It is one world: a host with queues from an earlier run, a sender from its creation to its last Release,
// and behind it a second sender over the same queues, with nothing failing any more, which has to deliver
// everything that is left. The same calls come in the same order every time.
#pragma once

#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "tests/module/sender_test.h"

namespace veld_report::tests {

class LongLife {
 public:
  LongLife();
  LongLife(const LongLife&) = delete;
  LongLife& operator=(const LongLife&) = delete;

  // What may be missing in the end. The item that the failing call dealt with may go, for all its rows.
  enum class Loss { nothing, oneSubmission, submissions };
  // What came out of a part of the life, to be compared with that of another one.
  struct Account {
    Strings events;
    Strings lines;
    Strings delivered;  // the items of each body that was answered with status 200
    bool operator==(const Account&) const = default;
  };

  // To the last Release. `stopFailing` is called with the sender still there and says whether the failure has
  // happened; if it has, the sender must deliver all of its queues in its next cycle. Gives the account up to
  // there and, if it hasn't, that of the rest.
  std::vector<Account> Run(const std::function<bool()>& stopFailing);
  // The second sender's life, and what must hold in the end.
  void CheckAfterwards(Loss loss);
  // Operations of the sender that threw, though only SetSettings may.
  Strings Thrown() const { return thrown_; }

  fakes::FakeHost host;

 private:
  struct Submission {
    std::string item;
    std::string rows;  // letters of the queues that it goes to
  };

  bool Begin();
  void Live();
  void StopInsideAWait();
  void Submit(const std::string& consumer, std::size_t padding = 0);
  void SubmitRefused();
  void Set(const Plan& plan);
  void Fire() { host.timer->Fire(); }
  Account TakeAccount();
  void CheckTokens() const;
  void ExpectAllDelivered(Sender& life, const char* when);
  template <class Operation>
  void Try(const char* what, Operation&& operation);

  const ModuleLibrary& module_ = ModuleLibrary::Get();
  Sender life_;
  Strings thrown_;
  std::vector<Submission> submissions_;
  Strings events_;
  bool withoutCallback_ = false;
  bool gateClosed_ = false;
  bool refuse_ = false;
  bool stopInWait_ = false;
  std::counting_semaphore<> stopping_{0};
  std::thread stopper_;
};

}  // namespace veld_report::tests
