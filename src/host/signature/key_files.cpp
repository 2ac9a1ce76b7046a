#include "host/signature/key_files.h"

#include <stdexcept>
#include <string_view>
#include <system_error>

#include "host/platform/file.h"
#include "host/signature/ed25519_key.h"

namespace veld_report::host {
namespace {

// Removes its file in the destructor unless Keep was called.
class NewFile {
 public:
  NewFile(const std::string& path, bool isPublic) : path_(path) {
    std::error_code error;
    file_ = File::OpenAsItIs(FromUtf8(path), File::Mode::makeNew, isPublic, &error);
    if (error == std::errc::file_exists)
      throw std::runtime_error("key file " + path + ": exists already; choose another name or remove it");
    if (error) Fail(error);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile() {
    file_.Close();
    if (!kept_) RemoveFile(FromUtf8(path_));
  }

  void Write(std::string_view text) {
    std::error_code error;
    const std::size_t written = file_.Write(text, &error);
    if (error) Fail(error);
    if (written != text.size()) throw std::runtime_error("key file " + path_ + ": no room to write it");
    if (!file_.Sync(&error)) Fail(error);
  }
  void Keep() { kept_ = true; }

 private:
  [[noreturn]] void Fail(std::error_code error) const {
    throw std::runtime_error("key file " + path_ + ": can't be written: " + error.message());
  }

  const std::string path_;
  File file_;
  bool kept_ = false;
};

}  // namespace

KeyFiles GenerateEd25519KeyPair(const std::string& prefix) {
  const Ed25519Key key = Ed25519Key::Generate();
  KeyFiles files{prefix + ".key.pem", prefix + ".pub.pem", key.KeyId()};
  NewFile privateFile(files.privatePath, false);
  NewFile publicFile(files.publicPath, true);
  privateFile.Write(key.PrivatePem());
  publicFile.Write(key.PublicPem());
  privateFile.Keep();
  publicFile.Keep();
  return files;
}

}  // namespace veld_report::host
