// Ed25519Key: one or both halves of an Ed25519 key pair (RFC 8032), held by OpenSSL.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace veld_report::host {

// Immutable; may be shared between threads.
class Ed25519Key {
 public:
  using Signature = std::array<std::uint8_t, 64>;

  // PEM: one private key in PKCS #8 without a password, or one public key as SubjectPublicKeyInfo. All four
  // throw std::runtime_error with the reason (the FromFile forms with the path too). None of them ever
  // prompts at a terminal.
  static Ed25519Key PrivateFromPem(std::string_view pem);
  static Ed25519Key PublicFromPem(std::string_view pem);
  static Ed25519Key PrivateFromFile(const std::string& path);
  static Ed25519Key PublicFromFile(const std::string& path);
  // A new pair from OpenSSL's random number generator. Throws std::runtime_error.
  static Ed25519Key Generate();

  // Needs the private half. Throws std::runtime_error.
  Signature Sign(std::string_view message) const;
  bool Verify(std::string_view message, std::span<const std::uint8_t> signature) const;

  std::string PrivatePem() const;
  std::string PublicPem() const;
  // The key's name: the RFC 7638 thumbprint of its public half in the form of RFC 8037, that is a SHA-256 as
  // 43 characters of unpadded base64url.
  const std::string& KeyId() const { return keyId_; }

 private:
  explicit Ed25519Key(std::shared_ptr<void> key);

  std::shared_ptr<void> key_;  // an EVP_PKEY; OpenSSL's headers stay out of this one
  std::string keyId_;
};

}  // namespace veld_report::host
