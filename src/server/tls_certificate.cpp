#include "server/tls_certificate.h"

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace veld_report::server {
namespace {

constexpr std::size_t maxChain = 16;

std::string ReadText(const std::string& path) {
  constexpr std::size_t limitBytes = std::size_t{1} << 20;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(path + ": can't be opened: " + std::generic_category().message(errno));
  std::string text(limitBytes, '\0');
  file.read(text.data(), static_cast<std::streamsize>(limitBytes));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.empty() && std::filesystem::is_directory(path))
    throw std::runtime_error(path + ": is a folder; name a file");
  if (text.empty()) throw std::runtime_error(path + ": is empty or can't be read");
  return text;
}

gnutls_datum_t DatumOf(std::string& text) {
  return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

// A certificate with its chain, and its key, as they were read at one time.
struct Loaded {
  std::string text;  // of both files
  std::array<gnutls_pcert_st, maxChain> chain{};
  unsigned chainLength = 0;
  gnutls_privkey_t key = nullptr;

  Loaded() = default;
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;
  ~Loaded() {
    for (unsigned i = 0; i < chainLength; ++i) gnutls_pcert_deinit(&chain[i]);
    if (key) gnutls_privkey_deinit(key);
  }
};

// Stored once all of it is read, and loaded by each handshake: that publishes it. It lives as long as the
// server.
std::atomic<Loaded*> shown{nullptr};

}  // namespace

class TlsCertificate::Files {
 public:
  Files(std::string certificatePath, std::string keyPath)
      : certificatePath_(std::move(certificatePath)), keyPath_(std::move(keyPath)) {}

  void Load() {
    std::string certificate = ReadText(certificatePath_), key = ReadText(keyPath_);
    const std::lock_guard lock(mutex_);
    if (!all_.empty() && all_.back().text == certificate + key) return;
    std::list<Loaded> fresh(1);
    Loaded& loaded = fresh.back();
    loaded.text = certificate + key;
    const gnutls_datum_t certificateData = DatumOf(certificate), keyData = DatumOf(key);
    loaded.chainLength = maxChain;
    const int chainCode = gnutls_pcert_list_import_x509_raw(loaded.chain.data(), &loaded.chainLength,
                                                            &certificateData, GNUTLS_X509_FMT_PEM, 0);
    if (chainCode != 0) {
      loaded.chainLength = 0;
      throw std::runtime_error(certificatePath_ +
                               ": isn't a certificate in PEM form: " + gnutls_strerror(chainCode));
    }
    if (gnutls_privkey_init(&loaded.key) != 0) throw std::bad_alloc();
    const int keyCode = gnutls_privkey_import_x509_raw(loaded.key, &keyData, GNUTLS_X509_FMT_PEM, nullptr, 0);
    if (keyCode != 0)
      throw std::runtime_error(
          keyPath_ + ": isn't a private key in PEM form without a password: " + gnutls_strerror(keyCode));
    CheckPair(certificateData, keyData);
    // Handshakes in progress may use the former ones, so those stay; there are as many as there were changes.
    all_.splice(all_.end(), fresh);
    shown = &all_.back();
  }

 private:
  void CheckPair(const gnutls_datum_t& certificate, const gnutls_datum_t& key) const {
    gnutls_certificate_credentials_t pair = nullptr;
    if (gnutls_certificate_allocate_credentials(&pair) != 0) throw std::bad_alloc();
    const int code = gnutls_certificate_set_x509_key_mem(pair, &certificate, &key, GNUTLS_X509_FMT_PEM);
    gnutls_certificate_free_credentials(pair);
    if (code < 0) throw std::runtime_error(keyPath_ + ": isn't the key of " + certificatePath_);
  }

  const std::string certificatePath_, keyPath_;
  std::mutex mutex_;  // guards the list; held while it is added to
  std::list<Loaded> all_;
};

TlsCertificate::TlsCertificate(std::string certificatePath, std::string keyPath)
    : files_(std::make_unique<Files>(std::move(certificatePath), std::move(keyPath))) {
  if (shown) throw std::runtime_error("this process has a server with a certificate already");
  files_->Load();
}

TlsCertificate::~TlsCertificate() { shown = nullptr; }

void TlsCertificate::Reload() { files_->Load(); }

void* TlsCertificate::Callback() {
  constexpr gnutls_certificate_retrieve_function2* function =
      [](gnutls_session_t, const gnutls_datum_t*, int, const gnutls_pk_algorithm_t*, int,
         gnutls_pcert_st** chain, unsigned* chainLength, gnutls_privkey_t* key) {
        Loaded* const loaded = shown;
        if (!loaded) return -1;
        *chain = loaded->chain.data();
        *chainLength = loaded->chainLength;
        *key = loaded->key;
        return 0;
      };
  return reinterpret_cast<void*>(function);
}

}  // namespace veld_report::server
