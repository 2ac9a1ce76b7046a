#include "host/http/certificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <stdexcept>

#include "host/base/redact.h"
#include "host/http/http_client.h"

namespace veld_report::host {
namespace {

constexpr std::string_view pinMark = "sha256//";

// A pin is 32 bytes, so 44 characters of which the last is "=".
bool IsPin(std::string_view text) {
  const std::string_view digest = text.substr(pinMark.size());
  if (digest.size() != 44 || digest[43] != '=' || digest[42] == '=') return false;
  unsigned char bytes[33];
  return EVP_DecodeBlock(bytes, reinterpret_cast<const unsigned char*>(digest.data()), 44) == 33;
}

// True if the text contains certificates and each of its PEM blocks is a valid one.
bool IsCertificatePem(std::string_view text) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> source(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free);
  if (!source) throw std::bad_alloc();
  int count = 0;
  for (;;) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr), &X509_free);
    if (!certificate) break;
    ++count;
  }
  const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  ERR_clear_error();
  return count > 0 && atEnd;
}

bool IsHttps(std::string_view url) {
  constexpr std::string_view scheme = "https://";
  return url.size() > scheme.size() &&
         std::equal(scheme.begin(), scheme.end(), url.begin(), [](char wanted, char given) {
           return wanted == (given >= 'A' && given <= 'Z' ? given - 'A' + 'a' : given);
         });
}

std::vector<std::string_view> Elements(const network_services::CertificateRow& row) {
  std::vector<std::string_view> elements;
  const auto* const end = static_cast<const HttpCertificate*>(row.end);
  for (const auto* element = static_cast<const HttpCertificate*>(row.begin); element != end; ++element) {
    elements.push_back(element->View());
  }
  return elements;
}

}  // namespace

CertificateSet ReadCertificates(const std::vector<std::string_view>& elements) {
  CertificateSet result;
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const std::string_view text = elements[i];
    if (text.starts_with(pinMark) && IsPin(text)) {
      if (!result.pins.empty()) result.pins += ';';
      result.pins += text;
    } else if (!text.starts_with(pinMark) && IsCertificatePem(text)) {
      result.caPem.append(text).append("\n");
    } else {
      throw std::invalid_argument("certificate " + std::to_string(i + 1) +
                                  " is neither the text of certificates in PEM form (a file's name won't do) "
                                  "nor a pin of the form sha256//BASE64 (44 characters); correct it or "
                                  "leave it out");
    }
  }
  return result;
}

CertificateTable ReadCertificateTable(const network_services::CertificateRange& table,
                                      const std::vector<std::string>& urls) {
  const bool known = table.end - table.begin == static_cast<std::ptrdiff_t>(urls.size());
  CertificateTable result;
  for (const auto* row = table.begin; row != table.end; ++row) {
    const std::vector<std::string_view> elements = Elements(*row);
    if (elements.empty()) continue;
    if (!known) {
      throw std::invalid_argument(
          "certificates came without their urls; call AnnounceUrls right before the settings");
    }
    const std::string& url = urls[static_cast<std::size_t>(row - table.begin)];
    try {
      if (!IsHttps(url)) {
        throw std::invalid_argument("certificates need an https url; without TLS nothing checks them");
      }
      CertificateSet set = ReadCertificates(elements);
      const auto [place, isNew] = result.try_emplace(url, set);
      if (!isNew && (place->second.caPem != set.caPem || place->second.pins != set.pins)) {
        throw std::invalid_argument("the url appears twice with different certificates");
      }
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(WithoutCredentials(url) + ": " + error.what());
    }
  }
  return result;
}

}  // namespace veld_report::host
