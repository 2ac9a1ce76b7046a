#include "tests/module/long_life.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <set>

#include "server/base64.h"

namespace veld_report::tests {
namespace {

// Longer than a string's own buffer, so that every copy allocates. The last letter gives the queue.
std::u16string Url(char letter) {
  return u"http://reports.example/of/" + std::u16string(1, static_cast<char16_t>(letter));
}
const std::string alpha = "the consumer of the first url";
const std::string beta = "the consumer of the second url";
const std::string evicting = "the consumer whose queue is too small";

Plan PlanOf(const std::string& letters, const std::vector<std::string>& consumers, std::uint32_t queueLimit) {
  Plan plan{.urls = {}, .consumers = consumers, .queueLimit = queueLimit};
  for (const char letter : letters) plan.urls.push_back(Url(letter));
  return plan;
}
const Plan first = PlanOf("bac", {beta, alpha, evicting}, 10);
const Plan smaller = PlanOf("cdab", {evicting, "nobody's consumer, with a long name", alpha, beta}, 1);

// The items of a body: what stands between the brackets of its payload, which holds no nested ones.
std::string ItemsOf(const std::string& body) {
  const std::string opening = "\"payload\":\"";
  const std::size_t begin = body.find(opening) + opening.size();
  std::string items;
  EXPECT_EQ(server::DecodeBase64(std::string_view(body).substr(begin, body.find('"', begin) - begin), &items),
            "");
  return items;
}

}  // namespace

LongLife::LongLife() {
  std::srand(1);
  host.http->usual = HttpAnswer::Status(200);
  for (const char* item : {"{\"old\":1}", "{\"old\":2}", "{\"old\":3}"})
    host.queues->Put(QueueName('a'), item);
  host.queues->Put(QueueName('z'), "{\"of\":\"a url that is gone\"}");
  host.queues->Put(QueueName('y'), "{}");
  Script& script = host.world.script;
  script.Do(
      "IsBackgroundDisabled", [this] { return gateClosed_ ? 1 : 0; }, 1, Script::always);
  script.Do(
      "Serialize", [this] { return refuse_ ? someCode : zel::sOk; }, 1, Script::always);
  script.Do(
      "Wait",
      [this] {
        StopInsideAWait();
        return zel::sOk;
      },
      1, Script::always);
  script.Do(
      "CancelTimer",
      [this] {
        stopping_.release();
        return zel::sOk;
      },
      1, Script::always);
  host.serializer->context = {.given = true, .objectName = "Message", .fieldName = "a field", .index = 3};
}

template <class Operation>
void LongLife::Try(const char* what, Operation&& operation) {
  try {
    operation();
  } catch (const std::exception&) {
    thrown_.push_back(what);
  }
}

bool LongLife::Begin() {
  ResultCode code = zel::eUnexpected;
  Try("creation", [&] { code = life_.Create(module_, host.locator.Get()); });
  if (code < 0) return false;
  code = zel::eUnexpected;
  const SenderSettings settings = MakeSettings(first);
  Try("Construct", [&] { code = life_.construct->Construct(settings); });
  return code >= 0;
}

void LongLife::Submit(const std::string& consumer, std::size_t padding) {
  const std::string item = "{\"n\":" + std::to_string(submissions_.size()) + std::string(padding, ' ') + "}";
  submissions_.push_back({item, consumer.empty()    ? "ab"
                                : consumer == alpha ? "a"
                                : consumer == beta  ? "b"
                                                    : ""});
  Try("SendStatistic", [&] { EXPECT_EQ(life_.Send(item, consumer), zel::sOk); });
}

// Through the form without a consumer. The text of the failure tells where the serialiser stopped.
void LongLife::SubmitRefused() {
  fakes::TextRecord record{zel::string("text")};
  refuse_ = true;
  Try("SendStatistic", [&] {
    EXPECT_EQ(life_.sender->SendStatistic(zel::AnyPtr(&record, &fakes::textRecordDescriptor)), zel::sOk);
  });
  refuse_ = false;
}

void LongLife::Set(const Plan& plan) {
  const SenderSettings settings = MakeSettings(plan);
  Try("SetSettings", [&] { life_.settings->SetSettings(settings); });
}

void LongLife::Live() {
  // Packets of two: answered with 200, refused, and failed, which ends the walk.
  for (const std::string& consumer : {std::string(), alpha, alpha, beta, std::string("no row's consumer")}) {
    Submit(consumer);
  }
  host.http->Answer(HttpAnswer::Status(200));
  host.http->Answer(HttpAnswer::Status(500));
  host.http->Answer(HttpAnswer::Failure(zel::eOperationTimeout));
  Fire();
  gateClosed_ = true;
  Submit(beta);
  Fire();
  gateClosed_ = false;
  // New limits, one url more, and a queue that has to make room; the last item has none at all.
  Set(smaller);
  for (int i = 0; i < 4; ++i) Submit(evicting, 400);
  Submit(evicting, 2000);
  Submit("");
  SubmitRefused();
  host.http->Answer(HttpAnswer::Late(zel::eOperationTimeout));
  Fire();
  Submit(alpha);
  Fire();
  host.http->CompleteOpen();
  // A url less: its queue goes.
  Set(first);
  host.http->Answer(HttpAnswer::Status(204, HttpAnswer::When::atOnce));
  Submit(alpha);
  Fire();
  Fire();
}

// Releases the sender on another thread, which is inside CancelTimer when this cycle goes on.
void LongLife::StopInsideAWait() {
  if (!std::exchange(stopInWait_, false)) return;
  stopper_ = std::thread([this] {
    Submit(beta);
    Try("Release", [this] { life_.End(); });
  });
  EXPECT_TRUE(stopping_.try_acquire_for(std::chrono::seconds(30)));
}

std::vector<LongLife::Account> LongLife::Run(const std::function<bool()>& stopFailing) {
  const bool constructed = Begin();
  if (constructed) Live();
  std::vector<Account> parts{TakeAccount()};
  const bool stopped = stopFailing();
  if (stopped) {
    host.http->ForgetAnswers();
    host.http->CompleteOpen();
    if (constructed) ExpectAllDelivered(life_, "in the same life");
  }
  if (constructed) {
    Submit("");
    stopInWait_ = true;
    Fire();
    stopInWait_ = false;
  }
  if (stopper_.joinable()) {
    stopper_.join();
  } else {
    Try("Release", [this] { life_.End(); });
  }
  host.timer->ForgetCancelled();
  host.http->CompleteOpen();
  const Account rest = TakeAccount();
  if (!stopped) parts.push_back(rest);
  return parts;
}

// Every item that was handed out is acknowledged or given back, but for one for which there was no callback.
void LongLife::CheckTokens() const {
  std::set<std::string> open;
  for (const std::string& event : events_) {
    const std::string token = event.substr(event.rfind(' ') + 1);
    if (event.starts_with("Read ") && token != "none") open.insert(token);
    if (event.starts_with("Ack ") || event.starts_with("ReturnItem ")) open.erase(token);
  }
  EXPECT_LE(open.size(), withoutCallback_ ? 1u : 0u) << testing::PrintToString(open);
}

LongLife::Account LongLife::TakeAccount() {
  Account account{host.world.log.Take(), host.tracer->TakeLines(), {}};
  for (const auto& sent : host.http->Delivered()) account.delivered.push_back(ItemsOf(sent.body));
  events_.insert(events_.end(), account.events.begin(), account.events.end());
  withoutCallback_ |= std::ranges::any_of(account.lines, [](const std::string& line) {
    return line.find("Can not create callback") != std::string::npos;
  });
  return account;
}

void LongLife::ExpectAllDelivered(Sender& life, const char* when) {
  EXPECT_EQ(life.Send("{\"all\":0}"), zel::sOk);
  EXPECT_TRUE(host.timer->Fire()) << when;
  for (const char queue : {'a', 'b', 'c'}) {
    EXPECT_THAT(host.queues->Items(QueueName(queue)), IsEmpty()) << queue << " " << when;
  }
}

void LongLife::CheckAfterwards(Loss loss) {
  EXPECT_EQ(module_.canUnload(), zel::sOk);
  if (loss != Loss::submissions) CheckTokens();
  host.http->ForgetAnswers();
  Sender second;
  ASSERT_EQ(second.Create(module_, host.locator.Get()), zel::sOk);
  ASSERT_EQ(second.construct->Construct(MakeSettings(first)), zel::sOk);
  ExpectAllDelivered(second, "in the second life");
  second.End();
  host.http->CompleteOpen();
  host.timer->ForgetCancelled();
  EXPECT_EQ(host.queues->store.queues.size(), 3u) << "queues without a url are gone";

  std::map<char, std::string> delivered;  // by queue
  for (const auto& [url, body] : host.http->Delivered()) {
    delivered[static_cast<char>(url.back())] += ItemsOf(body);
  }
  for (const char* old : {"{\"old\":1}", "{\"old\":2}", "{\"old\":3}"}) {
    EXPECT_THAT(delivered['a'], testing::HasSubstr(old)) << "lost, though it stood in a queue all the time";
  }
  Strings missing;
  for (const Submission& submission : submissions_) {
    const bool lost = std::ranges::any_of(
        submission.rows, [&](char row) { return delivered[row].find(submission.item) == std::string::npos; });
    if (lost) missing.push_back(submission.item);
  }
  const std::size_t allowed = loss == Loss::nothing ? 0 : loss == Loss::oneSubmission ? 1 : missing.size();
  EXPECT_LE(missing.size(), allowed) << testing::PrintToString(missing);
  EXPECT_EQ(module_.canUnload(), zel::sOk);
  host.ExpectNothingHeld();
}

}  // namespace veld_report::tests
