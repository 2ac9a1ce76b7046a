// What every HTTP client behind the module has to do, shown against servers that behave and servers that
// don't.
//
// A test program gives the suite a maker of factories and instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Real, HttpContract, testing::Values(MakeIt));
#pragma once

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/common/waiting.h"
#include "tests/host/http_fakes.h"
#include "tests/host/recording_sink.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {

using HttpMaker = zel::Ref<network_services::IHttpClientFactory> (*)();

class HttpContract : public testing::TestWithParam<HttpMaker> {
 protected:
  const ScriptedReply never{"", ScriptedReply::never};
  const ScriptedReply ok = ScriptedReply::Status(200);

  zel::Ref<network_services::IHttpClientFactory> factory = GetParam()();
  ClientUnderTest client{factory.Get()};
};

TEST_P(HttpContract, TheRequestArrivesAsItWasGiven) {
  ScriptedServer server(ok);
  for (const std::string& text : {std::string("{\"a\":1}"), std::string(300000, 'x'), std::string()}) {
    const auto call = client.Start(server.Url("/v1/in?k=v"), {}, text);
    EXPECT_EQ(call.Wait(), zel::sOk);
    const ScriptedRequest request = server.Requests().back();
    EXPECT_THAT(request.head, testing::StartsWith("POST /v1/in?k=v HTTP/1.1\r\n"));
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_EQ(request.body, text);
  }
}

TEST_P(HttpContract, AWholeHeadIsAnAnswerAndAnythingElseAFailure) {
  const std::pair<std::string, int> cases[] = {
      {ScriptedReply::Status(204).bytes, 204},
      {ScriptedReply::Status(302, "Location: /elsewhere\r\n").bytes, 302},
      {ScriptedReply::Status(500).bytes, 500},
      {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", 200},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\nX-Trailer: t\r\n\r\n", 200},
      {"HTTP/1.0 200 OK\n\nuntil the end", 200},
      {"", 0},
      {"HTTP/1.1 100 Continue\r\n\r\n", 0},
      {"HTTP/1.1 200 OK\r\nContent-Le", 0},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", 0},
      {"220 not a web server\r\n", 0}};
  for (const auto& [answer, status] : cases) {
    ScriptedServer server(ScriptedReply{answer, ScriptedReply::close});
    const auto end = client.Send(server.Url());
    EXPECT_EQ(end->code < 0, status == 0) << answer;
    EXPECT_EQ(end->status, status);
    EXPECT_EQ(server.Requests().size(), 1u) << "followed a redirect";
  }
  for (const char* url :
       {"", "nonsense", "file:///etc/hostname", "ftp://127.0.0.1/", "http://127.0.0.1:99999/"})
    EXPECT_LT(client.Send(url)->code, 0) << url;
}

TEST_P(HttpContract, ARefusedCallHasNoCompletion) {
  client.kind = 2;
  const auto call = client.Start("http://127.0.0.1/");
  EXPECT_LT(call.accepted, 0);
  EXPECT_FALSE(call.handle);
  client.client.Reset();
  EXPECT_EQ(call.callback->ends, 0);
  call.ExpectNoReferencesLeft();
}

TEST_P(HttpContract, WaitEndsAtItsLimitOrWhenTheCompletionHasReturnedOrThrown) {
  ScriptedServer server(ok);
  for (const bool throws : {true, false}) {
    Gate gate;
    bool returned = false;
    const auto call = client.Start(server.Url(), [&] {
      EXPECT_TRUE(gate.WaitOpen());
      returned = true;
      if (throws) throw std::runtime_error("from a completion");
    });
    EXPECT_EQ(call.handle->Wait(50), zel::eOperationTimeout);
    gate.Open();
    EXPECT_EQ(call.Wait(), zel::sOk);
    EXPECT_TRUE(returned);
    call.ExpectNoReferencesLeft();
  }
}

TEST_P(HttpContract, CancelWakesAWaitOnAnotherThread) {
  ScriptedServer server(never);
  const auto call = client.Start(server.Url());
  ASSERT_TRUE(server.WaitForRequests(1));
  std::thread canceller([&] {
    for (int i = 0; i < 2; ++i) EXPECT_EQ(call.handle->Cancel(), zel::sOk);
  });
  EXPECT_EQ(call.Wait(), zel::eOperationCancelled);
  EXPECT_EQ(call.callback->code, zel::eOperationCancelled);
  canceller.join();
}

TEST_P(HttpContract, CancelDoesNotBlockNorReachARequestThatHasEnded) {
  ScriptedServer server(ok);
  Gate gate;
  const auto ending = client.Start(server.Url(), [&] { EXPECT_TRUE(gate.WaitOpen()); });
  ASSERT_TRUE(server.WaitForRequests(1));
  // The client's thread may stand in the completion of the one; cancelling both must still return.
  const auto waiting = client.Start(server.Url());
  ending.handle->Cancel();
  waiting.handle->Cancel();
  gate.Open();
  for (const auto& call : {ending, waiting}) {
    EXPECT_NE(call.Wait(), zel::eOperationTimeout);
    call.handle->Cancel();
    EXPECT_EQ(call.handle->Wait(0), call.callback->code);
  }
}

TEST_P(HttpContract, WhenTheClientGoesRequestsInFlightEndAsCancelled) {
  ScriptedServer server(never);
  std::vector<ClientUnderTest::Call> calls;
  for (int i = 0; i < 3; ++i) calls.push_back(client.Start(server.Url()));
  ASSERT_TRUE(server.WaitForRequests(3));
  calls.push_back(client.Start(server.Url()));
  client.client.Reset();
  for (const auto& call : calls) {
    EXPECT_EQ(call.callback->ends, 1);
    EXPECT_EQ(call.handle->Wait(0), zel::eOperationCancelled);
    call.ExpectNoReferencesLeft();
    // The handle outlives the client.
    call.handle->Cancel();
  }
}

TEST_P(HttpContract, TheLastReleaseMayComeFromACompletion) {
  ScriptedServer server(ok);
  Gate started;
  const auto call = client.Start(server.Url(), [&] {
    EXPECT_TRUE(started.WaitOpen());
    client.client.Reset();
  });
  started.Open();
  EXPECT_EQ(call.Wait(), zel::sOk);
}

TEST_P(HttpContract, ManyThreadsStartWaitAndCancel) {
  ScriptedServer server(ok);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 25; ++round) {
        const auto call = client.Start(server.Url());
        if (round % 5 == i) call.handle->Cancel();
        call.Wait();
        EXPECT_EQ(call.callback->ends, 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace veld_report::tests
