// Which server the client believes, by the certificates of the system, of its options and of a url.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "host/http/http_client.h"
#include "host/http/http_outcome.h"
#include "tests/host/fake_resolver.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"
#include "tests/host/tls_support.h"

namespace veld_report::tests {
namespace {

using host::HttpClientOptions;

HttpClientOptions Direct() {
  HttpClientOptions options;
  options.proxy = "";
  return options;
}

class TlsServer {
 public:
  explicit TlsServer(const TestCertificate& certificate, int newest = TLS1_3_VERSION)
      : context_(ServerContext(certificate, newest)),
        server_([](const auto&) { return ScriptedReply::Status(200); },
                {.ipv6 = false, .tls = context_.get()}) {}
  std::string Url() const { return server_.Url(); }
  std::string Url(const std::string& host) const {
    return "https://" + host + ":" + std::to_string(server_.Port()) + "/";
  }

 private:
  const std::shared_ptr<SSL_CTX> context_;
  ScriptedServer server_;
};

struct Kit {
  explicit Kit(const HttpClientOptions& options = Direct())
      : factory(CreateHttpClientFactory(options)), client(factory.Get()) {}
  // Announces and hands over, as a host and the module do.
  zel::ResultCode SetCertificates(const std::vector<std::pair<std::string, std::vector<std::string>>>& rows) {
    std::vector<std::string> urls;
    std::vector<std::vector<zel::string>> table;
    for (const auto& [url, elements] : rows) {
      urls.push_back(url);
      auto& row = table.emplace_back();
      for (const std::string& element : elements) row.push_back(host::ToNarrow(element));
    }
    factory->AnnounceUrls(urls);
    return client.SetCertificates(table);
  }
  zel::ResultCode CodeFor(const std::string& url) const { return client.Send(url).callback->Code(); }

  zel::Ref<host::HttpClientFactory> factory;
  ClientUnderTest client;
};

class HttpTls : public testing::Test {
 protected:
  HttpTls() {
    const auto* const info = testing::UnitTest::GetInstance()->current_test_info();
    folder = std::filesystem::temp_directory_path() /
             ("http_tls_" + std::string(info->name()) + "_" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
  }
  ~HttpTls() override { std::filesystem::remove_all(folder); }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(folder / name) << text;
    return folder / name;
  }

  std::filesystem::path folder;
  const TestCertificate authority = TestCertificate::Authority("Test authority");
  const TestCertificate other = TestCertificate::Authority("Other authority");
  const TestCertificate certificate = TestCertificate::Server("127.0.0.1", authority);
};

TEST_F(HttpTls, WithAnyGivenOnlyTheCertificatesOfTheUrlCount) {
  const std::string ca = authority.Pem();
  const std::string wrongCa = other.Pem();
  const std::string pin = certificate.Pin();
  const std::string wrongPin = other.Pin();
  const struct {
    const char* what;
    std::vector<std::string> elements;
    bool trusted;
  } cases[] = {
      {"none: the system's", {}, false},
      {"the authority", {ca}, true},
      {"another authority", {wrongCa}, false},
      {"two authorities", {wrongCa, ca}, true},
      {"two in one element", {wrongCa + ca}, true},
      {"the server's own certificate", {certificate.Pem()}, true},
      {"its pin", {pin}, true},
      {"another pin", {wrongPin}, false},
      {"two pins", {wrongPin, pin}, true},
      {"authority and pin", {ca, pin}, true},
      {"authority and another pin", {ca, wrongPin}, false},
      {"another authority and the pin", {wrongCa, pin}, false},
  };
  TlsServer server(certificate);
  for (const auto& each : cases) {
    Kit kit;
    ASSERT_EQ(kit.SetCertificates({{server.Url(), each.elements}}), zel::sOk) << each.what;
    EXPECT_EQ(kit.CodeFor(server.Url()), each.trusted ? zel::sOk : host::eInvalidSignature) << each.what;
  }
}

TEST_F(HttpTls, AUrlsCertificatesReplaceThoseOfTheOptions) {
  TlsServer server(certificate);
  HttpClientOptions byFile = Direct();
  byFile.caFile = Write("ca.pem", authority.Pem());
  HttpClientOptions byFolder = Direct();
  Write(authority.HashedName(), authority.Pem());
  byFolder.caDirectory = folder;
  for (const HttpClientOptions& options : {byFile, byFolder}) {
    Kit kit(options);
    EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
    // A kept connection, made under other rules, must not serve.
    ASSERT_EQ(kit.SetCertificates({{server.Url(), {other.Pem()}}}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), host::eInvalidSignature);
    ASSERT_EQ(kit.SetCertificates({{server.Url(), {certificate.Pin()}}}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
    ASSERT_EQ(kit.SetCertificates({{server.Url(), {other.Pin()}}}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), host::eInvalidSignature);
  }
}

TEST_F(HttpTls, TheNameMustBeTheServersUnlessItsKeyIsPinned) {
  TlsServer server(certificate);
  HttpClientOptions options = Direct();
  const std::string url = server.Url("two-addresses.test");
  Kit kit(options);
  ASSERT_EQ(kit.SetCertificates({{url, {authority.Pem()}}}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(url), host::eInvalidSignature);
  ASSERT_EQ(kit.SetCertificates({{url, {certificate.Pin()}}}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(url), zel::sOk);
}

TEST_F(HttpTls, RowsGoWithTheAnnouncedUrls) {
  TlsServer first(certificate);
  TlsServer second(TestCertificate::Server("127.0.0.1", other));
  Kit kit;
  ASSERT_EQ(kit.SetCertificates({{second.Url(), {other.Pem()}}, {first.Url(), {authority.Pem()}}}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(first.Url()), zel::sOk);
  EXPECT_EQ(kit.CodeFor(second.Url()), zel::sOk);
  // A url that isn't in the table has no certificates of its own.
  EXPECT_EQ(kit.CodeFor(first.Url() + "?other"), host::eInvalidSignature);
}

TEST_F(HttpTls, ABadTableIsRefusedAndTheOldOneStays) {
  TlsServer server(certificate);
  Kit kit;
  ASSERT_EQ(kit.SetCertificates({{server.Url(), {authority.Pem()}}}), zel::sOk);
  const std::string truncated = authority.Pem().substr(0, 200);
  const std::string bad[] = {"",
                             "nonsense",
                             truncated,
                             authority.Pem() + truncated,
                             certificate.KeyPem(),
                             "sha256//",
                             "sha256//AAAA",
                             "sha256//" + std::string(44, '!'),
                             "sha1//" + std::string(27, 'A') + "="};
  for (const std::string& element : bad) {
    EXPECT_EQ(kit.SetCertificates({{server.Url(), {element}}}), zel::eInvalidArgument) << element;
  }
  EXPECT_EQ(
      kit.SetCertificates({{"https://a.test/", {certificate.Pin()}}, {"https://a.test/", {other.Pin()}}}),
      zel::eInvalidArgument);
  EXPECT_EQ(kit.SetCertificates({{"http://a.test/", {certificate.Pin()}}}), zel::eInvalidArgument);
  EXPECT_EQ(kit.SetCertificates({{"HTTPS://a.test/", {certificate.Pin()}}}), zel::sOk);
  ASSERT_EQ(kit.SetCertificates({{server.Url(), {authority.Pem()}}}), zel::sOk);
  // Rows that no announcement explains; an announcement counts once.
  EXPECT_EQ(kit.client.SetCertificates({{host::ToNarrow(other.Pem())}}), zel::eInvalidArgument);
  kit.factory->AnnounceUrls({"https://a.test/", "https://b.test/"});
  EXPECT_EQ(kit.client.SetCertificates({{host::ToNarrow(other.Pem())}}), zel::eInvalidArgument);
  EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
}

TEST_F(HttpTls, VersionsBelow12AreRefused) {
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsServer server(certificate, version);
    Kit kit;
    ASSERT_EQ(kit.SetCertificates({{server.Url(), {authority.Pem()}}}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), version < TLS1_2_VERSION ? host::eMediaError : zel::sOk) << version;
  }
}

}  // namespace
}  // namespace veld_report::tests
