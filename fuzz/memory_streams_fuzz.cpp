// Both memory streams, compared with a std::string under the same operations.
#include "fuzz/failing_allocator.h"
#include "memory_io/memory_io.h"

namespace {

using veld_report::fuzz::Input;
using veld_report::fuzz::Require;
using zel::IIO;

constexpr std::uint64_t maxBytes = 1 << 16;  // limit for growth here

class Run {
 public:
  Run(Input& in, bool ownCopy) : in_(in) {
    const auto start = in.Bytes(in.Below(40));
    text_ = zel::string(start, allocator_.Get());
    model_ = start;
    IIO* made = nullptr;
    const auto code = ownCopy ? zel::memory_io::CreateIOFromBuffer(text_, &made)
                              : zel::memory_io::CreateIOFromBuffer(&text_, &made);
    Require(code == zel::sOk, "the stream can't be made");
    stream_ = zel::Ref<IIO>::Attach(made);
    if (ownCopy) text_.assign("another text", 12);  // must make no difference
    Check();
  }

  void Step() {
    allocator_->fail = in_.OneIn(8);
    switch (in_.Below(6)) {
      case 0:
        return Write(in_.Bytes(in_.Below(70)));
      case 1:
        return Read(static_cast<std::uint32_t>(in_.Below(90)));
      case 2:
        return Seek();
      case 3:
        return Resize(in_.Below(300));
      case 4:  // including sizes beyond all memory
        return Resize(in_.Number());
      default:
        Require(stream_->Flush() == zel::sOk, "Flush fails");
    }
  }

  void Check() {
    std::uint64_t value = 0;
    Require(stream_->GetPosition(&value) == zel::sOk && value == position_, "the position is another");
    Require(stream_->GetSize(&value) == zel::sOk && value == model_.size(), "the size is another");
    std::string content(model_.size() + 1, '\0');
    std::uint32_t count = 0;
    stream_->Seek(0, 0, nullptr);
    stream_->Read(content.data(), static_cast<std::uint32_t>(content.size()), &count);
    content.resize(count);
    Require(content == model_, "the content is another");
    stream_->Seek(0, static_cast<std::int64_t>(position_), nullptr);
  }

 private:
  void Write(std::string_view bytes) {
    std::uint32_t written = 77;
    const auto code = stream_->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &written);
    if (zel::Failed(code)) {
      Require(code == zel::eOutOfMemory && written == 0, "a failed Write has another code, or has written");
      Require(allocator_->fail || position_ > maxBytes, "Write fails without a reason");
      return;
    }
    Require(written == bytes.size(), "Write is short");
    if (model_.size() < position_ + bytes.size()) model_.resize(position_ + bytes.size());
    model_.replace(position_, bytes.size(), bytes);
    position_ += bytes.size();
  }

  void Read(std::uint32_t count) {
    std::string bytes(count, '?');
    std::uint32_t read = 77;
    Require(stream_->Read(bytes.data(), count, &read) == zel::sOk, "Read fails");
    bytes.resize(read);
    Require(bytes == (position_ < model_.size() ? model_.substr(position_, count) : ""), "Read gives others");
    position_ += read;
  }

  void Seek() {
    const auto origin = static_cast<std::uint32_t>(in_.Below(5));
    const auto offset = in_.OneIn(4) ? static_cast<std::int64_t>(in_.Number())
                                     : static_cast<std::int64_t>(in_.Below(200)) - 100;
    const std::uint64_t base = origin == 1 ? position_ : origin == 2 ? model_.size() : 0;
    std::int64_t target = 0;
    if (__builtin_add_overflow(static_cast<std::int64_t>(base), offset, &target) || target < 0) target = 0;
    position_ = static_cast<std::uint64_t>(target);
    std::uint64_t found = 77;
    Require(stream_->Seek(origin, offset, in_.OneIn(3) ? nullptr : &found) == zel::sOk, "Seek fails");
    Require(found == 77 || found == position_, "Seek reports another position");
    // A Write that far out would really take that much memory.
    if (position_ <= maxBytes || position_ > std::uint64_t{1} << 62) return;
    position_ = 0;
    stream_->Seek(0, 0, nullptr);
  }

  void Resize(std::uint64_t size) {
    if (size > maxBytes && size < std::uint64_t{1} << 62) size %= maxBytes;
    const auto code = stream_->SetSize(size);
    if (zel::Failed(code)) {
      Require(code == zel::eOutOfMemory && (allocator_->fail || size > maxBytes), "SetSize fails");
      return;
    }
    model_.resize(size);
  }

  Input& in_;
  const zel::Ref<veld_report::fuzz::FailingAllocator> allocator_ =
      veld_report::host::MakeObject<veld_report::fuzz::FailingAllocator>();
  zel::string text_;
  zel::Ref<IIO> stream_;
  std::string model_;
  std::uint64_t position_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  Run run(in, in.OneIn(2));
  while (!in.Empty()) {
    run.Step();
    run.Check();
  }
  return 0;
}
