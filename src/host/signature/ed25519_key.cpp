#include "host/signature/ed25519_key.h"
#include "host/platform/file.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace veld_report::host {
namespace {

using Digest = std::array<std::uint8_t, 32>;
struct FreeBio {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct FreeDigestContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using BioHandle = std::unique_ptr<BIO, FreeBio>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeDigestContext>;

EVP_PKEY* Raw(const std::shared_ptr<void>& key) { return static_cast<EVP_PKEY*>(key.get()); }

// OpenSSL's error queue is per thread: what is left there would show up in somebody else's message.
[[noreturn]] void Fail(const std::string& what) {
  ERR_clear_error();
  throw std::runtime_error(what);
}

// Without this OpenSSL prompts for a password at the terminal.
int NoPassword(char*, int, int, void*) { return -1; }

std::shared_ptr<void> Checked(EVP_PKEY* key, const char* what) {
  std::shared_ptr<void> owner(key, [](void* held) { EVP_PKEY_free(static_cast<EVP_PKEY*>(held)); });
  if (!key) Fail(std::string("not a ") + what + " in PEM form without a password");
  if (EVP_PKEY_get_id(key) != EVP_PKEY_ED25519) Fail(std::string("a ") + what + ", but not of type Ed25519");
  return owner;
}

// OpenSSL reads the first of several and says nothing of the others.
BioHandle Reader(std::string_view text) {
  constexpr std::string_view begin = "-----BEGIN ";
  if (text.find(begin) != text.rfind(begin)) Fail("holds more than one key; give each key a file of its own");
  BioHandle bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (!bio) throw std::bad_alloc();
  return bio;
}

std::string ReadFile(const std::string& path) {
  if (IsFolder(FromUtf8(path))) throw std::runtime_error("is a folder");
  std::ifstream file(SystemPath(FromUtf8(path)), std::ios::binary);
  if (!file) throw std::runtime_error("can't be opened: " + std::generic_category().message(errno));
  constexpr std::size_t limitBytes = 64 << 10;
  std::string text(limitBytes, '\0');
  file.read(text.data(), static_cast<std::streamsize>(limitBytes));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

template <class Make>
Ed25519Key WithPath(const std::string& path, Make make) {
  try {
    return make(ReadFile(path));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("key file " + path + ": " + error.what());
  }
}

template <class Write>
std::string PemText(Write write) {
  const BioHandle bio(BIO_new(BIO_s_mem()));
  if (!bio) throw std::bad_alloc();
  if (write(bio.get()) != 1) Fail("the key can't be written as PEM");
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<std::size_t>(length));
}

std::string Base64Url(const Digest& bytes) {
  std::array<unsigned char, 48> text{};
  const int length = EVP_EncodeBlock(text.data(), bytes.data(), static_cast<int>(bytes.size()));
  std::string result;
  for (int i = 0; i < length; ++i) {
    const char character = static_cast<char>(text[static_cast<std::size_t>(i)]);
    if (character == '=') break;
    result.push_back(character == '+' ? '-' : character == '/' ? '_' : character);
  }
  return result;
}

std::string Thumbprint(EVP_PKEY* key) {
  Digest bytes{};
  std::size_t length = bytes.size();
  if (EVP_PKEY_get_raw_public_key(key, bytes.data(), &length) != 1) Fail("the key has no public half");
  const std::string text = R"({"crv":"Ed25519","kty":"OKP","x":")" + Base64Url(bytes) + "\"}";
  if (EVP_Digest(text.data(), text.size(), bytes.data(), nullptr, EVP_sha256(), nullptr) != 1) {
    Fail("OpenSSL's SHA-256 isn't available");
  }
  return Base64Url(bytes);
}

}  // namespace

Ed25519Key::Ed25519Key(std::shared_ptr<void> key) : key_(std::move(key)), keyId_(Thumbprint(Raw(key_))) {}

Ed25519Key Ed25519Key::PrivateFromPem(std::string_view pem) {
  EVP_PKEY* const key = PEM_read_bio_PrivateKey(Reader(pem).get(), nullptr, NoPassword, nullptr);
  return Ed25519Key(Checked(key, "private key"));
}

Ed25519Key Ed25519Key::PublicFromPem(std::string_view pem) {
  EVP_PKEY* const key = PEM_read_bio_PUBKEY(Reader(pem).get(), nullptr, NoPassword, nullptr);
  return Ed25519Key(Checked(key, "public key"));
}

Ed25519Key Ed25519Key::PrivateFromFile(const std::string& path) { return WithPath(path, PrivateFromPem); }
Ed25519Key Ed25519Key::PublicFromFile(const std::string& path) { return WithPath(path, PublicFromPem); }

Ed25519Key Ed25519Key::Generate() {
  EVP_PKEY* const key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
  if (!key) Fail("OpenSSL can't make an Ed25519 key");
  return Ed25519Key(Checked(key, "private key"));
}

Ed25519Key::Signature Ed25519Key::Sign(std::string_view message) const {
  const DigestContext context(EVP_MD_CTX_new());
  Signature signature{};
  std::size_t length = signature.size();
  const auto* const bytes = reinterpret_cast<const unsigned char*>(message.data());
  if (!context || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, Raw(key_)) != 1 ||
      EVP_DigestSign(context.get(), signature.data(), &length, bytes, message.size()) != 1 ||
      length != signature.size()) {
    Fail("OpenSSL can't sign with this key");
  }
  return signature;
}

bool Ed25519Key::Verify(std::string_view message, std::span<const std::uint8_t> signature) const {
  const DigestContext context(EVP_MD_CTX_new());
  const auto* const bytes = reinterpret_cast<const unsigned char*>(message.data());
  const bool good =
      context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, Raw(key_)) == 1 &&
      EVP_DigestVerify(context.get(), signature.data(), signature.size(), bytes, message.size()) == 1;
  if (!good) ERR_clear_error();
  return good;
}

std::string Ed25519Key::PrivatePem() const {
  return PemText([&](BIO* bio) {
    return PEM_write_bio_PKCS8PrivateKey(bio, Raw(key_), nullptr, nullptr, 0, nullptr, nullptr);
  });
}

std::string Ed25519Key::PublicPem() const {
  return PemText([&](BIO* bio) { return PEM_write_bio_PUBKEY(bio, Raw(key_)); });
}

}  // namespace veld_report::host
