// Which proxy a request takes, and what the proxy gets to see.
#include "host/http/proxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "host/http/http_outcome.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

using host::HttpClientOptions;

TEST(ProxySettings, ComeFromTheOptionsOrElseTheEnvironment) {
  const struct {
    std::map<std::string, const char*> environment;
    std::optional<std::string> option;
    std::string forHttp;
    std::string forHttps;
  } cases[] = {
      {{}, {}, "", ""},
      {{{"http_proxy", "h"}, {"https_proxy", "s"}}, {}, "h", "s"},
      {{{"HTTP_PROXY", "h"}, {"HTTPS_PROXY", "s"}}, {}, "", "s"},
      {{{"all_proxy", "a"}, {"http_proxy", "h"}}, {}, "h", "a"},
      {{{"ALL_PROXY", "A"}, {"https_proxy", ""}}, {}, "A", "A"},
      {{{"http_proxy", "h"}, {"https_proxy", "s"}}, "", "", ""},
      {{{"http_proxy", "h"}}, "o", "o", "o"},
  };
  for (const auto& each : cases) {
    HttpClientOptions options;
    options.proxy = each.option;
    const host::ProxySettings settings = ReadProxySettings(options, [&](const char* name) -> const char* {
      const auto found = each.environment.find(name);
      return found == each.environment.end() ? nullptr : found->second;
    });
    EXPECT_EQ(settings.For("http"), each.forHttp);
    EXPECT_EQ(settings.For("https"), each.forHttps);
  }
}

TEST(HttpClientProxy, GetsTheWholeUrlAndItsOwnCredentials) {
  ScriptedServer proxy([](const auto&) { return ScriptedReply::Status(200); });
  HttpClientOptions options;
  options.proxy = "http://me:pw@127.0.0.1:" + std::to_string(proxy.Port());
  const auto factory = CreateHttpClientFactory(options);
  EXPECT_EQ(ClientUnderTest(factory.Get()).Send("http://stats.test/v1").callback->Status(), 200);
  const std::string head = proxy.Requests().at(0).head;
  EXPECT_THAT(head, testing::StartsWith("POST http://stats.test/v1 HTTP/1.1\r\n"));
  EXPECT_THAT(head, testing::HasSubstr("\r\nProxy-Authorization: Basic bWU6cHc=\r\n"));
}

TEST(HttpClientProxy, IsPassedByForHostsThatNeedNone) {
  ScriptedServer proxy([](const auto&) { return ScriptedReply::Status(502); });
  ScriptedServer server([](const auto&) { return ScriptedReply::Status(200); });
  HttpClientOptions options;
  options.proxy = proxy.Url();
  options.noProxy = "elsewhere.test,127.0.0.1";
  const auto factory = CreateHttpClientFactory(options);
  EXPECT_EQ(ClientUnderTest(factory.Get()).Send(server.Url()).callback->Status(), 200);
  EXPECT_EQ(proxy.Connections(), 0);
}

TEST(HttpClientProxy, ARefusedTunnelIsAFailureAndNoAnswerOfTheServer) {
  ScriptedServer refusing([](const auto&) { return ScriptedReply::Status(407); });
  HttpClientOptions options;
  options.proxy = refusing.Url();
  const auto factory = CreateHttpClientFactory(options);
  const auto call = ClientUnderTest(factory.Get()).Send("https://stats.test/v1");
  EXPECT_EQ(call.callback->Code(), host::eMediaError);
  EXPECT_THAT(refusing.Requests().at(0).head, testing::StartsWith("CONNECT stats.test:443 HTTP/1.1\r\n"));
}

TEST(HttpClientProxy, TheEnvironmentIsReadWhenTheFactoryIsMade) {
  ScriptedServer proxy([](const auto&) { return ScriptedReply::Status(200); });
  setenv("http_proxy", proxy.Url().c_str(), 1);
  unsetenv("no_proxy");
  unsetenv("NO_PROXY");
  const auto factory = host::CreateHttpClientFactory({});
  unsetenv("http_proxy");
  EXPECT_EQ(ClientUnderTest(factory.Get()).Send("http://stats.test/").callback->Status(), 200);
  EXPECT_EQ(proxy.Requests().size(), 1u);
}

}  // namespace
}  // namespace veld_report::tests
