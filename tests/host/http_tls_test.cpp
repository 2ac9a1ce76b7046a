// Which server the client believes, by the certificates of the system, of its options and of a url.
#include <gmock/gmock.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <memory>

#include "host/http/http_client.h"
#include "host/http/http_outcome.h"
#include "host/http/server_keys.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

using host::HttpClientOptions;

// The files in tests/host/tls, which say who has signed whom.
const std::filesystem::path files = VELD_TLS_FILES;
std::string File(const char* name) { return ReadFile(files / name); }

// Knows its key and its certificate from `pem`, and no newer version of TLS than `newest`.
struct TlsServer {
  explicit TlsServer(const char* pem = "server.pem", int newest = TLS1_3_VERSION)
      : context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free) {
    const std::string file = files / pem;
    SSL_CTX_set_quiet_shutdown(context.get(), 1);  // nobody listens any more
    // The old versions count as weak, whose use a security level of 0 alone allows.
    EXPECT_EQ(SSL_CTX_set_cipher_list(context.get(), "DEFAULT@SECLEVEL=0"), 1);
    EXPECT_EQ(SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION), 1);
    EXPECT_EQ(SSL_CTX_set_max_proto_version(context.get(), newest), 1);
    EXPECT_EQ(SSL_CTX_use_certificate_file(context.get(), file.c_str(), SSL_FILETYPE_PEM), 1);
    EXPECT_EQ(SSL_CTX_use_PrivateKey_file(context.get(), file.c_str(), SSL_FILETYPE_PEM), 1);
  }
  std::string Url() const { return server.Url(); }

  const std::shared_ptr<SSL_CTX> context;
  const ScriptedServer server{ScriptedReply::Status(200), context.get()};
};

struct TlsKit : HttpKit {
  using HttpKit::HttpKit;
  // Announces and hands over, as a host and the module do.
  zel::ResultCode SetCertificates(const std::string& url, const std::vector<std::string>& elements) const {
    factory->AnnounceUrls({url});
    return client.SetCertificates({elements});
  }
  zel::ResultCode CodeWith(const std::vector<std::string>& elements, const std::string& url) const {
    EXPECT_EQ(SetCertificates(url, elements), zel::sOk);
    return client.Send(url)->code;
  }
};

const std::string ca = File("authority.pem"), wrongCa = File("other.pem");
const std::string pin = File("server.pin"), wrongPin = File("other.pin");

TEST(HttpTls, WithAnyGivenOnlyTheCertificatesOfTheUrlCount) {
  const std::string own = File("server.pem");  // after its key
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
      {"the server's own certificate", {own.substr(own.find("-----BEGIN CERTIFICATE"))}, true},
      {"its pin", {pin}, true},
      {"another pin", {wrongPin}, false},
      {"two pins", {wrongPin, pin}, true},
      {"authority and pin", {ca, pin}, true},
      {"authority and another pin", {ca, wrongPin}, false},
      {"another authority and the pin", {wrongCa, pin}, false},
  };
  const TlsServer server;
  // By a name that isn't the server's only its key is trusted.
  HttpClientOptions options = Direct();
  options.resolve = {"stats.example.test:" + std::to_string(server.server.Port()) + ":127.0.0.1"};
  const std::string otherName = server.server.Url("/", "stats.example.test");
  EXPECT_EQ(TlsKit(options).CodeWith({ca}, otherName), host::eInvalidSignature);
  EXPECT_EQ(TlsKit(options).CodeWith({pin}, otherName), zel::sOk);
  for (const auto& each : cases) {
    EXPECT_EQ(TlsKit().CodeWith(each.elements, server.Url()),
              each.trusted ? zel::sOk : host::eInvalidSignature)
        << each.what;
  }
}

TEST(HttpTls, AUrlsCertificatesReplaceThoseOfTheOptions) {
  const TlsServer server;
  const TemporaryFolder folder;
  HttpClientOptions byFile = Direct();
  byFile.caFile = files / "authority.pem";
  HttpClientOptions byFolder = Direct();
  byFolder.caDirectory = folder.Path();
  // The name under which OpenSSL looks for "Test authority".
  std::filesystem::create_symlink(files / "authority.pem", folder.Path() / "f20e0b1e.0");
  for (const HttpClientOptions& options : {byFile, byFolder}) {
    const TlsKit kit(options);
    EXPECT_EQ(kit.client.Send(server.Url())->code, zel::sOk);
    // A kept connection, made under other rules, must not serve.
    EXPECT_EQ(kit.CodeWith({wrongCa}, server.Url()), host::eInvalidSignature);
    EXPECT_EQ(kit.CodeWith({pin}, server.Url()), zel::sOk);
    EXPECT_EQ(kit.CodeWith({wrongPin}, server.Url()), host::eInvalidSignature);
    EXPECT_THAT(kit.factory->StateOf(server.Url())->lastError,
                testing::HasSubstr("otherwise somebody is in between (0x8000005a Invalid signature)"));
  }
}

TEST(HttpTls, RowsGoWithTheAnnouncedUrls) {
  const TlsServer first;
  const TlsServer second("stranger.pem");
  const TlsKit kit;
  kit.factory->AnnounceUrls({second.Url(), first.Url()});
  ASSERT_EQ(kit.client.SetCertificates({{wrongCa}, {ca}}), zel::sOk);
  EXPECT_EQ(kit.client.Send(first.Url())->code, zel::sOk);
  EXPECT_EQ(kit.client.Send(second.Url())->code, zel::sOk);
  // A url that isn't in the table has no certificates of its own.
  EXPECT_EQ(kit.client.Send(first.Url() + "?other")->code, host::eInvalidSignature);
}

TEST(HttpTls, ABadTableIsRefusedAndTheOldOneStays) {
  const TlsServer server;
  const TlsKit kit;
  ASSERT_EQ(kit.SetCertificates(server.Url(), {ca}), zel::sOk);
  const std::string truncated = ca.substr(0, 200);
  for (const std::string& element :
       {std::string(), std::string("nonsense"), truncated, ca + truncated, std::string("sha256//AAAA"),
        "sha256//" + std::string(44, '!'), "sha1//" + std::string(27, 'A') + "="}) {
    EXPECT_EQ(kit.SetCertificates(server.Url(), {element}), zel::eInvalidArgument) << element;
  }
  EXPECT_EQ(kit.SetCertificates("http://a.test/", {pin}), zel::eInvalidArgument);
  // Certificates of two kinds for one url.
  kit.factory->AnnounceUrls({"https://a.test/", "https://a.test/"});
  EXPECT_EQ(kit.client.SetCertificates({{pin}, {wrongPin}}), zel::eInvalidArgument);
  // Rows that no announcement explains; an announcement counts once.
  EXPECT_EQ(kit.client.SetCertificates({{wrongCa}}), zel::eInvalidArgument);
  kit.factory->AnnounceUrls({"https://a.test/", "https://b.test/"});
  EXPECT_EQ(kit.client.SetCertificates({{wrongCa}}), zel::eInvalidArgument);
  EXPECT_EQ(kit.client.Send(server.Url())->code, zel::sOk);
}

TEST(HttpTls, VersionsBelow12AreRefused) {
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    const TlsServer server("server.pem", version);
    EXPECT_EQ(TlsKit().CodeWith({ca}, server.Url()), version < TLS1_2_VERSION ? host::eMediaError : zel::sOk);
  }
}

TEST(HttpTls, PinsOfAServerAreReadInTheOrderOfItsChain) {
  const TlsServer server;
  BIO* const text = BIO_new_mem_buf(ca.data(), static_cast<int>(ca.size()));
  SSL_CTX_add_extra_chain_cert(server.context.get(), PEM_read_bio_X509(text, nullptr, nullptr, nullptr));
  BIO_free(text);
  const host::ServerKeys keys = host::ReadServerKeys(server.Url(), std::chrono::seconds(20));
  ASSERT_EQ(keys.chain.size(), 2U);
  EXPECT_EQ(keys.chain[0].pin, pin);
  EXPECT_EQ(keys.chain[1].pin, File("authority.pin"));
  EXPECT_NE(keys.distrust, "");
  EXPECT_EQ(server.server.Requests().size(), 0U);
}

}  // namespace
}  // namespace veld_report::tests
