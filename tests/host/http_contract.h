// What every HTTP client behind the module has to do, shown against servers that behave and servers that
// don't.
//
// A test program gives the suite an HttpMaker and instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Real, HttpContract, testing::Values(HttpMaker{"...", MakeIt}));
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "contract/http.h"
#include "tests/host/http_fakes.h"
#include "tests/host/recording_sink.h"
#include "tests/host/scripted_server.h"
#include "types/ref.h"

namespace veld_report::tests {

struct HttpMaker {
  std::string name;
  std::function<zel::Ref<network_services::IHttpClientFactory>()> make;
};
inline void PrintTo(const HttpMaker& maker, std::ostream* out) { *out << maker.name; }

class HttpContract : public testing::TestWithParam<HttpMaker> {
 protected:
  static ScriptedReply Never(const ScriptedRequest&) { return {"", ScriptedReply::never}; }
  static ScriptedReply Ok(const ScriptedRequest&) { return ScriptedReply::Status(200); }

  zel::Ref<network_services::IHttpClientFactory> factory = GetParam().make();
  ClientUnderTest client{factory.Get()};
};

TEST_P(HttpContract, TheRequestArrivesAsItWasGiven) {
  ScriptedServer server(Ok);
  const std::string large(300000, 'x');
  for (const std::string& text : {std::string("{\"a\":1}"), large, std::string()}) {
    const auto call = client.Start(server.Url("/v1/in?k=v"), {}, text);
    ASSERT_EQ(call.accepted, zel::sOk);
    EXPECT_EQ(call.handle->Wait(20000), zel::sOk);
    EXPECT_EQ(call.callback->Url(), server.Url("/v1/in?k=v"));
    const ScriptedRequest request = server.Requests().back();
    EXPECT_THAT(request.head, testing::StartsWith("POST /v1/in?k=v HTTP/1.1\r\n"));
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_EQ(request.body, text);
  }
  EXPECT_EQ(server.Connections(), 1) << "the connection isn't kept";
}

TEST_P(HttpContract, AnAnswerOfAnyStatusCompletesTheRequest) {
  for (const int status : {200, 204, 302, 400, 404, 413, 500}) {
    ScriptedServer server(
        [&](const auto&) { return ScriptedReply::Status(status, "Location: /elsewhere\r\n"); });
    const auto call = client.Send(server.Url());
    EXPECT_EQ(call.handle->Wait(0), zel::sOk) << status;
    EXPECT_EQ(call.callback->Code(), zel::sOk) << status;
    EXPECT_EQ(call.callback->Status(), status);
    EXPECT_EQ(server.Requests().size(), 1u) << "followed a redirect";
  }
}

TEST_P(HttpContract, AnswersInSeveralPiecesAreWhole) {
  const std::string answers[] = {
      "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\nX-Trailer: t\r\n\r\n",
      "HTTP/1.0 200 OK\n\nuntil the end"};
  for (const std::string& answer : answers) {
    ScriptedServer server([&](const auto&) { return ScriptedReply{answer, ScriptedReply::close}; });
    const auto call = client.Send(server.Url());
    EXPECT_EQ(call.callback->Code(), zel::sOk) << answer;
    EXPECT_EQ(call.callback->Status(), 200) << answer;
  }
}

TEST_P(HttpContract, WithoutAnAnswerTheRequestFails) {
  const ScriptedReply bad[] = {{"", ScriptedReply::close},
                               {"HTTP/1.1 100 Continue\r\n\r\n", ScriptedReply::close},
                               {"HTTP/1.1 200 OK\r\nContent-Le", ScriptedReply::close},
                               {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", ScriptedReply::close},
                               {"220 not a web server\r\n", ScriptedReply::close}};
  for (const ScriptedReply& reply : bad) {
    ScriptedServer server([&](const auto&) { return reply; });
    const auto call = client.Send(server.Url());
    EXPECT_LT(call.callback->Code(), 0) << reply.bytes;
    EXPECT_EQ(call.handle->Wait(0), call.callback->Code());
  }
  const std::string urls[] = {"http://127.0.0.1:" + std::to_string(ClosedPort()) + "/",
                              "",
                              "nonsense",
                              "file:///etc/hostname",
                              "ftp://127.0.0.1/",
                              "http://127.0.0.1:99999/"};
  for (const std::string& url : urls) {
    const auto call = client.Send(url);
    EXPECT_LT(call.callback->Code(), 0) << url;
    EXPECT_EQ(call.callback->Url(), url);
  }
}

TEST_P(HttpContract, ARefusedCallHasNoCompletion) {
  const auto callback = host::MakeObject<RecordingCallback>();
  const auto body = host::MakeObject<TextBody>("");
  const network_services::HttpRequestOptions options;
  const std::uint32_t otherKind = 2;
  zel::Ref<network_services::IHttpRequestHandle> handle;
  EXPECT_LT(client.client->MakeRequestAsync(host::ToWide("http://127.0.0.1/"), options, &otherKind,
                                            body.Get(), nullptr, callback.Get(), handle.Out()),
            0);
  EXPECT_FALSE(handle);
  client.client.Reset();
  EXPECT_EQ(callback->Ends(), 0);
  EXPECT_EQ(callback->OtherReferences(), 0u);
}

TEST_P(HttpContract, WaitEndsAtItsLimitAndTheRequestGoesOn) {
  Gate answer;
  ScriptedServer server([&](const auto&) {
    EXPECT_TRUE(answer.WaitOpen());
    return ScriptedReply::Status(200);
  });
  const auto call = client.Start(server.Url());
  EXPECT_EQ(call.handle->Wait(20), zel::eOperationTimeout);
  EXPECT_EQ(call.callback->Ends(), 0);
  answer.Open();
  EXPECT_EQ(call.handle->Wait(20000), zel::sOk);
  EXPECT_EQ(call.callback->Status(), 200);
}

TEST_P(HttpContract, WaitReturnsOnlyAfterTheCompletionHas) {
  ScriptedServer server(Ok);
  Gate gate;
  const auto call = client.Start(server.Url(), [&] { EXPECT_TRUE(gate.WaitOpen()); });
  EXPECT_EQ(call.handle->Wait(50), zel::eOperationTimeout);
  gate.Open();
  EXPECT_EQ(call.handle->Wait(20000), zel::sOk);
  EXPECT_EQ(call.callback->Ends(), 1);
}

TEST_P(HttpContract, CancelWakesAWaitOnAnotherThread) {
  ScriptedServer server(Never);
  const auto call = client.Start(server.Url());
  ASSERT_TRUE(server.WaitForRequests(1));
  std::thread canceller([&] {
    EXPECT_EQ(call.handle->Cancel(), zel::sOk);
    EXPECT_EQ(call.handle->Cancel(), zel::sOk);
  });
  EXPECT_EQ(call.handle->Wait(20000), zel::eOperationCancelled);
  EXPECT_EQ(call.callback->Code(), zel::eOperationCancelled);
  canceller.join();
}

TEST_P(HttpContract, CancelDoesNotBlockNorReachARequestThatHasEnded) {
  ScriptedServer server(Ok);
  const auto done = client.Send(server.Url());
  done.handle->Cancel();
  EXPECT_EQ(done.handle->Wait(0), zel::sOk);

  Gate gate;
  const auto blocking = client.Start(server.Url(), [&] { EXPECT_TRUE(gate.WaitOpen()); });
  ASSERT_TRUE(server.WaitForRequests(2));
  // The client's thread may stand in the completion of the one; cancelling both must still return.
  const auto waiting = client.Start(server.Url());
  blocking.handle->Cancel();
  waiting.handle->Cancel();
  gate.Open();
  EXPECT_TRUE(waiting.callback->WaitForEnd());
  EXPECT_TRUE(blocking.callback->WaitForEnd());
}

TEST_P(HttpContract, AThrowingCompletionDoesNotEndTheClient) {
  ScriptedServer server(Ok);
  for (int i = 0; i < 2; ++i) {
    const auto call = client.Start(server.Url(), [] { throw std::runtime_error("from a completion"); });
    EXPECT_EQ(call.handle->Wait(20000), zel::sOk);
    EXPECT_EQ(call.callback->OtherReferences(), 0u);
  }
  EXPECT_EQ(client.Send(server.Url()).callback->Status(), 200);
}

TEST_P(HttpContract, ReferencesAreGivenBackByTheTimeWaitReturns) {
  ScriptedServer server(Ok);
  for (const std::string& url : {server.Url(), std::string("nonsense")}) {
    const auto call = client.Send(url);
    EXPECT_EQ(call.callback->OtherReferences(), 0u) << url;
    EXPECT_EQ(call.body->OtherReferences(), 0u) << url;
  }
}

TEST_P(HttpContract, WhenTheClientGoesRequestsInFlightEndAsCancelled) {
  ScriptedServer server(Never);
  std::vector<ClientUnderTest::Call> calls;
  calls.reserve(4);
  for (int i = 0; i < 3; ++i) calls.push_back(client.Start(server.Url()));
  ASSERT_TRUE(server.WaitForRequests(3));
  calls.push_back(client.Start(server.Url()));
  client.client.Reset();
  for (const auto& call : calls) {
    EXPECT_EQ(call.callback->Ends(), 1);
    EXPECT_EQ(call.handle->Wait(0), zel::eOperationCancelled);
    EXPECT_EQ(call.callback->OtherReferences(), 0u);
    // The handle outlives the client.
    call.handle->Cancel();
  }
}

TEST_P(HttpContract, TheLastReleaseMayComeFromACompletion) {
  ScriptedServer server(
      [](const ScriptedRequest& request) { return request.body == "never" ? Never(request) : Ok(request); });
  const auto waiting = client.Start(server.Url(), {}, "never");
  ASSERT_TRUE(server.WaitForRequests(1));
  Gate started;
  const auto call = client.Start(server.Url(), [&] {
    EXPECT_TRUE(started.WaitOpen());
    client.client.Reset();
  });
  started.Open();
  EXPECT_EQ(call.handle->Wait(20000), zel::sOk);
  EXPECT_EQ(waiting.handle->Wait(20000), zel::eOperationCancelled);
}

TEST_P(HttpContract, CertificatesMayBeEmptyButTheInterfaceIsThere) {
  EXPECT_EQ(client.SetCertificates({}), zel::sOk);
  EXPECT_EQ(client.SetCertificates({{}, {}}), zel::sOk);
}

TEST_P(HttpContract, ManyThreadsStartWaitAndCancel) {
  ScriptedServer server(Ok);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 25; ++round) {
        const auto call = client.Start(server.Url());
        ASSERT_EQ(call.accepted, zel::sOk);
        if (round % 5 == i) call.handle->Cancel();
        call.handle->Wait(20000);
        EXPECT_EQ(call.callback->Ends(), 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace veld_report::tests
