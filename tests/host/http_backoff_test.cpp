// When the client leaves a url alone.
#include "host/http/backoff.h"

#include <gtest/gtest.h>

#include "host/http/retry_after.h"
#include "tests/host/manual_clock.h"

namespace veld_report::tests {
namespace {

using host::Backoff;
using host::BackoffOptions;
using host::HttpOutcome;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RetryAfter, IsSecondsOrADateAndAtMostTheLongest) {
  const auto now = ManualClock().WallNow();  // Thu, 01 Jan 2026 00:00:00 GMT
  const std::optional<milliseconds> none;
  const struct {
    const char* value;
    std::optional<milliseconds> wait;
  } cases[] = {{"0", seconds(0)},
               {" 7\t", seconds(7)},
               {"3601", seconds(3600)},
               {"99999999999999999999999", seconds(3600)},
               {"Thu, 01 Jan 2026 00:00:30 GMT", seconds(30)},
               {"Fri, 02 Jan 2026 00:00:00 GMT", seconds(3600)},
               {"Wed, 31 Dec 2025 23:59:59 GMT", seconds(0)},
               {"", none},
               {"soon", none},
               {"-5", none},
               {"20260101", seconds(3600)}};
  for (const auto& each : cases) {
    EXPECT_EQ(host::ParseRetryAfter(each.value, now, seconds(3600)), each.wait) << '"' << each.value << '"';
  }
}

HttpOutcome Answer(int status, std::optional<std::string> retryAfter = {}) {
  return {.status = static_cast<std::uint16_t>(status), .retryAfter = std::move(retryAfter)};
}
const HttpOutcome timedOut{.code = zel::eOperationTimeout, .error = "no luck"};

class BackoffTest : public testing::Test {
 protected:
  // Starts a request, which must be let through, and ends it.
  void Request(const HttpOutcome& outcome, const std::string& url = "http://a/") {
    backoff.End(url, backoff.Start(url).value(), outcome);
  }
  // Moves the clock to the end of the wait of http://a/, which it returns, and not a millisecond further.
  milliseconds PassWait() {
    const auto until = backoff.States().at(0).waitsUntil.value_or(clock->WallNow());
    const auto wait = std::chrono::duration_cast<milliseconds>(until - clock->WallNow());
    if (wait.count() > 0) {
      clock->Advance(wait - milliseconds(1));
      EXPECT_FALSE(backoff.Start("http://a/"));
      clock->Advance(milliseconds(1));
    }
    EXPECT_TRUE(backoff.Start("http://a/"));
    return wait;
  }

  double draw = 1;  // of the random source; 1 gives the longest waits
  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  Backoff backoff{BackoffOptions(), clock, [this] { return draw; }};
};

TEST_F(BackoffTest, WaitsAreDrawnBelowABoundThatDoublesToFiveMinutes) {
  // The first failure in a row holds nothing back.
  Request(Answer(500));
  for (const int bound : {1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300}) {
    Request(timedOut);
    EXPECT_EQ(PassWait(), seconds(bound));
  }
  EXPECT_EQ(backoff.States().at(0).failures, 12u);
  for (const double each : {0.0, 0.25, 0.5}) {
    draw = each;
    Request(Answer(503));
    EXPECT_EQ(PassWait(), milliseconds(static_cast<int>(300000 * each)));
  }
  Request(timedOut, "http://b.test/");
  backoff.KeepOnly({"http://b.test/", "http://new.test/"});
  EXPECT_EQ(backoff.States().size(), 1u);
  Backoff disabled({.enabled = false}, clock, [] { return 1.0; });
  disabled.End("http://a/", disabled.Start("http://a/").value(), Answer(503, "60"));
  EXPECT_TRUE(disabled.Start("http://a/"));
}

TEST_F(BackoffTest, WhatCountsAsAFailure) {
  for (const int status : {201, 204, 301, 400, 404, 407, 413, 429, 500, 503, 599}) {
    Request(Answer(200));
    Request(Answer(status));
    EXPECT_EQ(backoff.States().at(0).failures, 1u) << status;
    EXPECT_NE(backoff.States().at(0).lastError, "") << status;
  }
  Request(Answer(200));
  for (int i = 0; i < 5; ++i) {
    Request({.code = zel::eInvalidArgument, .local = true});
    Request({.code = zel::eOperationCancelled});
  }
  EXPECT_EQ(backoff.States().at(0).failures, 0u);
}

TEST_F(BackoffTest, RetryAfterHoldsFromTheFirstAnswerOn) {
  const struct {
    HttpOutcome answer;
    milliseconds wait;
  } cases[] = {{Answer(503, "120"), seconds(120)},   {Answer(429, "1"), seconds(1)},
               {Answer(503, "7200"), seconds(3600)}, {Answer(503, "soon"), seconds(0)},
               {Answer(500, "120"), seconds(0)},     {Answer(200, "120"), seconds(0)}};
  for (const auto& each : cases) {
    Request(Answer(200));
    Request(each.answer);
    EXPECT_EQ(PassWait(), each.wait) << each.answer.status << ' ' << *each.answer.retryAfter;
  }
  // The longer of the two waits counts.
  for (int i = 0; i < 4; ++i) {
    Request(Answer(503, "3"));
    EXPECT_EQ(PassWait(), i < 3 ? seconds(3) : seconds(4));
  }
}

TEST_F(BackoffTest, RequestsOfOneOutageCountOnce) {
  const auto first = *backoff.Start("http://a/");
  clock->Advance(seconds(6));
  const auto second = *backoff.Start("http://a/");
  clock->Advance(seconds(24));
  backoff.End("http://a/", first, timedOut);
  clock->Advance(seconds(6));
  backoff.End("http://a/", second, timedOut);
  EXPECT_EQ(backoff.States().at(0).failures, 1u);
  EXPECT_TRUE(backoff.Start("http://a/"));
  // Nor does an answer to an old request lift what a later one has asked for.
  Request(Answer(503, "60"));
  backoff.End("http://a/", second, Answer(200));
  EXPECT_FALSE(backoff.Start("http://a/"));
}

}  // namespace
}  // namespace veld_report::tests
