#include "host/json/json_token.h"

#include "host/base/host_object.h"
#include "host/json/json_text_writer.h"

namespace veld_report::host {
namespace {

// A stream that appends to a text. Only for JsonTextWriter.
class TextStream final : public HostObject<zel::IIO> {
 public:
  explicit TextStream(std::string* text) : text_(text) {}

  zel::ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) override {
    return Guarded([&] {
      text_->append(static_cast<const char*>(buffer), count);
      *bytesWritten = count;
      return zel::sOk;
    });
  }
  zel::ResultCode Read(void*, std::uint32_t, std::uint32_t*) override { return zel::eNotSupported; }
  zel::ResultCode Seek(std::uint32_t, std::int64_t, std::uint64_t*) override { return zel::eNotSupported; }
  zel::ResultCode GetPosition(std::uint64_t*) override { return zel::eNotSupported; }
  zel::ResultCode GetSize(std::uint64_t*) override { return zel::eNotSupported; }
  zel::ResultCode SetSize(std::uint64_t) override { return zel::eNotSupported; }
  zel::ResultCode Flush() override { return zel::sOk; }

 private:
  std::string* const text_;
};

template <class Write>
std::string Token(Write write) {
  std::string text;
  JsonTextWriter writer(MakeObject<TextStream>(&text));
  write(writer);
  if (zel::Failed(writer.Flush())) throw std::bad_alloc();
  return text;
}

}  // namespace

std::string JsonToken(std::string_view utf8) {
  return Token([&](JsonTextWriter& writer) { writer.String(utf8); });
}

std::string JsonToken(double value) {
  return Token([&](JsonTextWriter& writer) { writer.Floating(value); });
}

}  // namespace veld_report::host
