// Which server the client believes, by the certificates of the system, of its options and of a url.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "host/http/http_client.h"
#include "host/http/http_outcome.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"
#include "tests/host/tls_support.h"

namespace veld_report::tests {
namespace {

using host::HttpClientOptions;

struct TlsServer {
  explicit TlsServer(const TestCertificate& certificate, int newest = TLS1_3_VERSION)
      : context(ServerContext(certificate, newest)), server(ScriptedReply::Status(200), context.get()) {}
  std::string Url() const { return server.Url(); }

  const std::shared_ptr<SSL_CTX> context;
  const ScriptedServer server;
};

struct TlsKit : HttpKit {
  using HttpKit::HttpKit;
  // Announces and hands over, as a host and the module do.
  zel::ResultCode SetCertificates(const std::string& url, const std::vector<std::string>& elements) const {
    factory->AnnounceUrls({url});
    return client.SetCertificates({elements});
  }
  zel::ResultCode CodeFor(const std::string& url) const { return client.Send(url)->code; }
};

class HttpTls : public testing::Test {
 protected:
  const TestCertificate authority = TestCertificate::Authority("Test authority");
  const TestCertificate other = TestCertificate::Authority("Other authority");
  const TestCertificate certificate = TestCertificate::Server(authority);
};

TEST_F(HttpTls, WithAnyGivenOnlyTheCertificatesOfTheUrlCount) {
  const std::string ca = authority.Pem(), wrongCa = other.Pem();
  const std::string pin = certificate.Pin(), wrongPin = other.Pin();
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
  const TlsServer server(certificate);
  for (const auto& each : cases) {
    const TlsKit kit;
    ASSERT_EQ(kit.SetCertificates(server.Url(), each.elements), zel::sOk) << each.what;
    EXPECT_EQ(kit.CodeFor(server.Url()), each.trusted ? zel::sOk : host::eInvalidSignature) << each.what;
  }
}

TEST_F(HttpTls, AUrlsCertificatesReplaceThoseOfTheOptions) {
  const TlsServer server(certificate);
  const TemporaryFolder folder;
  HttpClientOptions byFile = Direct();
  byFile.caFile = folder.Path() / "ca.pem";
  std::ofstream(byFile.caFile) << authority.Pem();
  HttpClientOptions byFolder = Direct();
  byFolder.caDirectory = folder.Path();
  std::ofstream(folder.Path() / authority.HashedName()) << authority.Pem();
  for (const HttpClientOptions& options : {byFile, byFolder}) {
    const TlsKit kit(options);
    EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
    // A kept connection, made under other rules, must not serve.
    ASSERT_EQ(kit.SetCertificates(server.Url(), {other.Pem()}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), host::eInvalidSignature);
    ASSERT_EQ(kit.SetCertificates(server.Url(), {certificate.Pin()}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
    ASSERT_EQ(kit.SetCertificates(server.Url(), {other.Pin()}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), host::eInvalidSignature);
  }
}

TEST_F(HttpTls, TheNameMustBeTheServersUnlessItsKeyIsPinned) {
  const TlsServer server(certificate);
  HttpClientOptions options = Direct();
  options.resolve = {"stats.example.test:" + std::to_string(server.server.Port()) + ":127.0.0.1"};
  const std::string url = server.server.Url("/", "stats.example.test");
  const TlsKit kit(options);
  ASSERT_EQ(kit.SetCertificates(url, {authority.Pem()}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(url), host::eInvalidSignature);
  ASSERT_EQ(kit.SetCertificates(url, {certificate.Pin()}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(url), zel::sOk);
}

TEST_F(HttpTls, RowsGoWithTheAnnouncedUrls) {
  const TlsServer first(certificate);
  const TlsServer second(TestCertificate::Server(other));
  const TlsKit kit;
  kit.factory->AnnounceUrls({second.Url(), first.Url()});
  ASSERT_EQ(kit.client.SetCertificates({{other.Pem()}, {authority.Pem()}}), zel::sOk);
  EXPECT_EQ(kit.CodeFor(first.Url()), zel::sOk);
  EXPECT_EQ(kit.CodeFor(second.Url()), zel::sOk);
  // A url that isn't in the table has no certificates of its own.
  EXPECT_EQ(kit.CodeFor(first.Url() + "?other"), host::eInvalidSignature);
}

TEST_F(HttpTls, ABadTableIsRefusedAndTheOldOneStays) {
  const TlsServer server(certificate);
  const TlsKit kit;
  ASSERT_EQ(kit.SetCertificates(server.Url(), {authority.Pem()}), zel::sOk);
  const std::string truncated = authority.Pem().substr(0, 200);
  const std::string bad[] = {"",
                             "nonsense",
                             truncated,
                             authority.Pem() + truncated,
                             "sha256//AAAA",
                             "sha256//" + std::string(44, '!'),
                             "sha1//" + std::string(27, 'A') + "="};
  for (const std::string& element : bad) {
    EXPECT_EQ(kit.SetCertificates(server.Url(), {element}), zel::eInvalidArgument) << element;
  }
  EXPECT_EQ(kit.SetCertificates("http://a.test/", {certificate.Pin()}), zel::eInvalidArgument);
  // Certificates of two kinds for one url.
  kit.factory->AnnounceUrls({"https://a.test/", "https://a.test/"});
  EXPECT_EQ(kit.client.SetCertificates({{certificate.Pin()}, {other.Pin()}}), zel::eInvalidArgument);
  // Rows that no announcement explains; an announcement counts once.
  EXPECT_EQ(kit.client.SetCertificates({{other.Pem()}}), zel::eInvalidArgument);
  kit.factory->AnnounceUrls({"https://a.test/", "https://b.test/"});
  EXPECT_EQ(kit.client.SetCertificates({{other.Pem()}}), zel::eInvalidArgument);
  EXPECT_EQ(kit.CodeFor(server.Url()), zel::sOk);
}

TEST_F(HttpTls, VersionsBelow12AreRefused) {
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    const TlsServer server(certificate, version);
    const TlsKit kit;
    ASSERT_EQ(kit.SetCertificates(server.Url(), {authority.Pem()}), zel::sOk);
    EXPECT_EQ(kit.CodeFor(server.Url()), version < TLS1_2_VERSION ? host::eMediaError : zel::sOk) << version;
  }
}

}  // namespace
}  // namespace veld_report::tests
