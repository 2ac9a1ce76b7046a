#include "memory_io/memory_io.h"

namespace zel::memory_io {
namespace {

template <class Stream>
ResultCode MakeStream(Stream** out) {
  try {
    *out = SimpleObjectFactory::Make<Stream>();
    return sOk;
  } catch (...) {
    return ConstructionExceptionToResultCode(nullptr);
  }
}

}  // namespace

ResultCode CreateIOFromBuffer(string* text, IIO** out) {
  detail::PointerStream* stream = nullptr;
  if (const ResultCode code = MakeStream(&stream); Failed(code)) return code;
  stream->Attach(text);
  *out = stream;
  return sOk;
}

ResultCode CreateIOFromBuffer(const string& text, IIO** out) {
  detail::OwnCopyStream* stream = nullptr;
  if (const ResultCode code = MakeStream(&stream); Failed(code)) return code;
  *out = stream;
  try {
    stream->Attach(text);
    return sOk;
  } catch (...) {
    return ExceptionToResultCode();
  }
}

}  // namespace zel::memory_io
