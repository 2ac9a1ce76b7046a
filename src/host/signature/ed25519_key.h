// Ed25519Key, one half or both halves of an Ed25519 key pair (RFC 8032), held by OpenSSL.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace veld_report::host {

// Immutable once made; shared freely between threads.
class Ed25519Key {
 public:
  using Signature = std::array<std::uint8_t, 64>;

  // PEM: a private key in PKCS #8 without a password, a public one as SubjectPublicKeyInfo. All four throw
  // std::runtime_error with what is wrong (the FromFile forms with the path); nothing ever asks at a
  // terminal.
  static Ed25519Key PrivateFromPem(std::string_view pem);
  static Ed25519Key PublicFromPem(std::string_view pem);
  static Ed25519Key PrivateFromFile(const std::string& path);
  static Ed25519Key PublicFromFile(const std::string& path);
  // A new pair from OpenSSL's random numbers. Throws std::runtime_error.
  static Ed25519Key Generate();

  // Needs the private half. Throws std::runtime_error.
  Signature Sign(std::string_view message) const;
  bool Verify(std::string_view message, std::span<const std::uint8_t> signature) const;

  std::string PrivatePem() const;
  std::string PublicPem() const;
  // The key's name: the thumbprint of RFC 7638 over its public half as in RFC 8037, which is the unpadded
  // base64url text of a SHA-256, 43 characters.
  const std::string& KeyId() const { return keyId_; }

 private:
  explicit Ed25519Key(std::shared_ptr<void> key);

  std::shared_ptr<void> key_;  // an EVP_PKEY; OpenSSL's headers stay out of this one
  std::string keyId_;
};

}  // namespace veld_report::host
