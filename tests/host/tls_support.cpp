#include "tests/host/tls_support.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace veld_report::tests {
namespace {

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("OpenSSL fails: ") + what);
}

void AddExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), &X509_EXTENSION_free);
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

}  // namespace

TestCertificate::TestCertificate(const std::string& subject, const TestCertificate* authority)
    : key_(EVP_EC_gen("P-256"), &EVP_PKEY_free), certificate_(X509_new(), &X509_free) {
  X509* const made = certificate_.get();
  Require(key_ && made, "making a key");
  static long serial = 1;
  X509_set_version(made, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(made), -3600);
  X509_gmtime_adj(X509_getm_notAfter(made), 3600);
  X509_set_pubkey(made, key_.get());
  const auto* const name = reinterpret_cast<const unsigned char*>(subject.c_str());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_UTF8, name, -1, -1, 0);
  X509* const issuer = authority ? authority->Certificate() : made;
  X509_set_issuer_name(made, X509_get_subject_name(issuer));
  AddExtension(made, issuer, NID_basic_constraints, authority ? "CA:FALSE" : "critical,CA:TRUE");
  if (authority) AddExtension(made, issuer, NID_subject_alt_name, "IP:127.0.0.1");
  Require(X509_sign(made, authority ? authority->Key() : key_.get(), EVP_sha256()) > 0, "signing");
}

TestCertificate TestCertificate::Authority(const std::string& name) { return TestCertificate(name, nullptr); }

TestCertificate TestCertificate::Server(const TestCertificate& authority) {
  return TestCertificate("127.0.0.1", &authority);
}

std::string TestCertificate::Pem() const {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), &BIO_free);
  Require(PEM_write_bio_X509(memory.get(), certificate_.get()) == 1, "writing PEM");
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::string TestCertificate::Pin() const {
  unsigned char* der = nullptr;
  const int size = i2d_PUBKEY(key_.get(), &der);
  Require(size > 0, "writing the public key");
  unsigned char digest[32];
  const int hashed = EVP_Digest(der, static_cast<std::size_t>(size), digest, nullptr, EVP_sha256(), nullptr);
  OPENSSL_free(der);
  Require(hashed == 1, "hashing");
  unsigned char text[45];
  EVP_EncodeBlock(text, digest, sizeof(digest));
  return "sha256//" + std::string(reinterpret_cast<const char*>(text));
}

std::string TestCertificate::HashedName() const {
  char name[16];
  std::snprintf(name, sizeof(name), "%08lx.0", X509_subject_name_hash(certificate_.get()));
  return name;
}

std::shared_ptr<SSL_CTX> ServerContext(const TestCertificate& certificate, int newest) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  Require(context != nullptr, "making a context");
  // The old versions count as weak, whose use a security level of 0 alone allows.
  Require(SSL_CTX_set_cipher_list(context.get(), "DEFAULT@SECLEVEL=0") == 1, "setting ciphers");
  SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context.get(), newest);
  Require(SSL_CTX_use_certificate(context.get(), certificate.Certificate()) == 1, "taking the certificate");
  Require(SSL_CTX_use_PrivateKey(context.get(), certificate.Key()) == 1, "taking the key");
  return context;
}

}  // namespace veld_report::tests
