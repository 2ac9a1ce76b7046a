#include "host/http/server_keys.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "host/http/curl_codes.h"
#include "host/http/url_check.h"

namespace veld_report::host {
namespace {

template <class T, void (*free)(T*)>
struct Freed {
  void operator()(T* each) const { free(each); }
};
template <class T, void (*free)(T*)>
using Owned = std::unique_ptr<T, Freed<T, free>>;

void FreeBio(BIO* bio) { BIO_free(bio); }

std::string PinOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
  if (length <= 0) throw std::runtime_error("its key can't be read");
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned int digestBytes = 0;
  const int ok =
      EVP_Digest(der, static_cast<std::size_t>(length), digest.data(), &digestBytes, EVP_sha256(), nullptr);
  OPENSSL_free(der);
  if (ok != 1) throw std::runtime_error("its key can't be hashed");
  std::array<unsigned char, 64> text;
  const int characters = EVP_EncodeBlock(text.data(), digest.data(), static_cast<int>(digestBytes));
  return "sha256//" + std::string(text.begin(), text.begin() + characters);
}

std::string SubjectOf(X509* certificate) {
  const Owned<BIO, FreeBio> bio(BIO_new(BIO_s_mem()));
  if (!bio) throw std::bad_alloc();
  X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

ServerKeys::Key KeyOf(std::string_view pem) {
  const Owned<BIO, FreeBio> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) throw std::bad_alloc();
  const Owned<X509, X509_free> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  if (!certificate) throw std::runtime_error("one of its certificates can't be read");
  return {PinOf(certificate.get()), SubjectOf(certificate.get())};
}

std::vector<ServerKeys::Key> KeysOf(CURL* easy) {
  curl_certinfo* info = nullptr;
  curl_easy_getinfo(easy, CURLINFO_CERTINFO, &info);
  std::vector<ServerKeys::Key> keys;
  for (int i = 0; info && i < info->num_of_certs; ++i) {
    for (const curl_slist* line = info->certinfo[i]; line; line = line->next) {
      constexpr std::string_view mark = "Cert:";
      const std::string_view text = line->data;
      if (text.starts_with(mark)) keys.push_back(KeyOf(text.substr(mark.size())));
    }
  }
  if (keys.empty()) throw std::runtime_error("it has sent no certificate");
  return keys;
}

}  // namespace

ServerKeys ReadServerKeys(const std::string& url, std::chrono::milliseconds timeout) {
  const UrlCheck check = CheckUrl(url);
  if (!check.wrong.empty()) throw std::runtime_error("the url isn't valid: " + check.wrong);
  if (!check.isTls) throw std::runtime_error("only a url with https:// has a key");
  const Owned<CURL, curl_easy_cleanup> easy(curl_easy_init());
  if (!easy) throw std::bad_alloc();
  std::array<char, CURL_ERROR_SIZE> reason{};
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_CERTINFO, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, reason.data());
  ServerKeys keys;
  CURLcode result = curl_easy_perform(easy.get());
  if (result == CURLE_PEER_FAILED_VERIFICATION) {
    keys.distrust = reason.data();
    curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    result = curl_easy_perform(easy.get());
  }
  if (result != CURLE_OK) throw std::runtime_error(SentenceOf(result, reason.data()));
  keys.chain = KeysOf(easy.get());
  return keys;
}

}  // namespace veld_report::host
