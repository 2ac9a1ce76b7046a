// Memory streams: a zel::IIO whose bytes are in a narrow string. They carry text to and from host services.
//
// There are two with the same behaviour, both made by CreateIOFromBuffer. The pointer stream writes straight
// to the caller's string, which must outlive it; it is for text that the host writes. The own-copy stream has
// a copy and no tie to the caller; it is for text that the host keeps and reads.
//
// Life: from CreateIOFromBuffer to the last Release, which may come on any thread. The other operations take
// no lock: a stream, and the string of a pointer stream, are for one thread at a time. No operation lets an
// exception out, and none writes a trace line.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "contract/io.h"
#include "types/basic_string.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/objclient.h"
#include "zel/rtl/object.h"

namespace zel::memory_io {

// Makes a stream over `*text` at position 0; the string's content stays. `*out` receives it with one
// reference. Returns 0x80000041 "Out of memory" if there is no memory for the stream; then `*out` doesn't
// change. Any thread.
ResultCode CreateIOFromBuffer(string* text, IIO** out);
// Makes a stream with a copy of `text`, at position 0. If there is no memory for the copy, it fails with the
// stream already in `*out`, and the caller must release it as after a success.
ResultCode CreateIOFromBuffer(const string& text, IIO** out);

namespace detail {

// Reads and positions. S is a string or a pointer to one, P the pointer to its characters.
//
// The size of the stream always is that of the string. The position may be past the end, but is never
// negative as a signed number: Seek ensures that, and Write never goes past the maximum size of a string.
template <class S, class P>
class MemoryIOStorageReadOnly : public IIO {
 public:
  ResultCode Read(void* buffer, std::uint32_t count, std::uint32_t* bytesRead) override {
    *bytesRead = 0;
    const string& text = Text();
    if (position_ >= text.size) return sOk;
    const auto taken = static_cast<std::uint32_t>(std::min<std::uint64_t>(count, text.size - position_));
    const P from = text.data + position_;
    char_traits<char>::move(static_cast<P>(buffer), from, taken);
    position_ += taken;
    *bytesRead = taken;
    return sOk;
  }
  ResultCode Seek(std::uint32_t origin, std::int64_t offset, std::uint64_t* newPosition) override {
    const std::uint64_t base = origin == 1 ? position_ : origin == 2 ? Text().size : 0;
    // Unsigned, since its overflow is defined. A sum above the largest signed number counts as negative too.
    const std::uint64_t target = base + static_cast<std::uint64_t>(offset);
    position_ = target > largestPosition ? 0 : target;
    if (newPosition) *newPosition = position_;
    return sOk;
  }
  ResultCode GetPosition(std::uint64_t* out) override {
    *out = position_;
    return sOk;
  }
  ResultCode GetSize(std::uint64_t* out) override {
    *out = Text().size;
    return sOk;
  }
  // Every write is in the string already.
  ResultCode Flush() override { return sOk; }

 protected:
  ~MemoryIOStorageReadOnly() = default;

  static constexpr std::uint64_t largestPosition = std::numeric_limits<std::int64_t>::max();

  string& Text() {
    if constexpr (std::is_pointer_v<S>) {
      return *storage_;
    } else {
      return storage_;
    }
  }

  S storage_{};
  std::uint64_t position_ = 0;
};

// Writes, within what the stream's own SetSize allows.
template <class S>
class MemoryIOStorageWritable : public MemoryIOStorageReadOnly<S, char*> {
 public:
  ResultCode Write(const void* buffer, std::uint32_t count, std::uint32_t* bytesWritten) override {
    *bytesWritten = 0;
    // Can't overflow: the position is below 2^63.
    const std::uint64_t end = this->position_ + count;
    if (end > this->Text().size) {
      const ResultCode code = Extend(end);
      if (Failed(code)) {
        const std::uint64_t size = this->Text().size;
        if (code != eNotSupported || this->position_ >= size) return code;
        // A stream of fixed size takes what fits. That is less than `count`, so it fits in 32 bits.
        count = static_cast<std::uint32_t>(size - this->position_);
      }
    }
    char_traits<char>::move(this->Text().data + this->position_, static_cast<const char*>(buffer), count);
    this->position_ += count;
    *bytesWritten = count;
    return sOk;
  }

 protected:
  ~MemoryIOStorageWritable() = default;

 private:
  ResultCode Extend(std::uint64_t end) {
    try {
      return this->SetSize(end);
    } catch (...) {
      return ExceptionToResultCode();
    }
  }
};

// Grows and shrinks by the string's own rule. For a pointer, attaching stores it.
template <class S>
class MemoryIOStorageSizeable : public MemoryIOStorageWritable<S> {
 public:
  // Shrinking keeps the string's memory. If growth fails, the stream doesn't change.
  ResultCode SetSize(std::uint64_t size) override {
    string& text = this->Text();
    if (size == text.size) return sOk;
    if (size > text.size) {
      try {
        text.reserve_extra(size - text.size);
      } catch (...) {
        return ExceptionToResultCode();
      }
      char_traits<char>::fill(text.data + text.size, size - text.size, '\0');
    }
    text.size = size;
    text.data[size] = '\0';
    return sOk;
  }

  void Attach(S text) requires std::is_pointer_v<S> {
    this->storage_ = text;
    this->position_ = 0;
  }

 protected:
  ~MemoryIOStorageSizeable() = default;
};

// A string of its own. The `&` of its parameter is the form of attaching: a string comes by reference and is
// copied.
template <class S>
class MemoryIOStorage;
template <class S>
class MemoryIOStorage<S&> : public MemoryIOStorageSizeable<S> {
 public:
  // Throws what the copy throws; then the stream doesn't change.
  void Attach(const S& text) {
    this->storage_ = text;
    this->position_ = 0;
  }

 protected:
  ~MemoryIOStorage() = default;
};

// The complete stream, except for the reference count.
template <class Storage>
class MemoryIO : public Storage, public ObjectRootEx<NoServiceStrategy> {
 public:
  ResultCode QueryInterface(InterfaceId interfaceId, void** out) override {
    if (interfaceId != 0 && interfaceId != IIO::iid) {
      *out = nullptr;
      return eInterfaceNotSupported;
    }
    *out = static_cast<IIO*>(this);
    this->AddRef();
    return sOk;
  }

 protected:
  ~MemoryIO() = default;
};

using PointerStream = Object<MemoryIO<MemoryIOStorageSizeable<string*>>, SimpleObjectFactory>;
using OwnCopyStream = Object<MemoryIO<MemoryIOStorage<string&>>, SimpleObjectFactory>;

}  // namespace detail
}  // namespace zel::memory_io
