#include "host/signature/key_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "host/signature/ed25519_key.h"

namespace veld_report::host {
namespace {

// Removes its file in the destructor unless Keep was called.
class NewFile {
 public:
  NewFile(const std::string& path, mode_t mode) : path_(path) {
    descriptor_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (descriptor_ < 0 && errno == EEXIST) {
      throw std::runtime_error("key file " + path + ": exists already; choose another name or remove it");
    }
    if (descriptor_ < 0) Fail();
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile() {
    ::close(descriptor_);
    if (!kept_) ::unlink(path_.c_str());
  }

  void Write(std::string_view text) {
    const ssize_t written = ::write(descriptor_, text.data(), text.size());
    if (written < 0) Fail();
    if (static_cast<std::size_t>(written) != text.size()) {
      throw std::runtime_error("key file " + path_ + ": no room to write it");
    }
    if (::fsync(descriptor_) != 0) Fail();
  }
  void Keep() { kept_ = true; }

 private:
  [[noreturn]] void Fail() const {
    throw std::runtime_error("key file " + path_ + ": " + std::generic_category().message(errno));
  }

  const std::string path_;
  int descriptor_ = -1;
  bool kept_ = false;
};

}  // namespace

KeyFiles GenerateEd25519KeyPair(const std::string& prefix) {
  const Ed25519Key key = Ed25519Key::Generate();
  KeyFiles files{prefix + ".key.pem", prefix + ".pub.pem", key.KeyId()};
  NewFile privateFile(files.privatePath, S_IRUSR | S_IWUSR);
  NewFile publicFile(files.publicPath, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
  privateFile.Write(key.PrivatePem());
  publicFile.Write(key.PublicPem());
  privateFile.Keep();
  publicFile.Keep();
  return files;
}

}  // namespace veld_report::host
