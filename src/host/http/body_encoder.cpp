#include "host/http/body_encoder.h"

#include <new>

#include "host/http/request_body.h"

namespace veld_report::host {
namespace {

// Base-64 hides from a compressor what its higher levels would find (docs/performance.md has the figures).
constexpr int gzipLevel = 1;
constexpr int zstdLevel = 1;

}  // namespace

EncodedBody BodyEncoder::Encode(BodyCoding coding, zel::IIO& body) {
  if (coding == BodyCoding::none) return {};
  const std::uint64_t size = BodySize(body);
  if (size == 0 || size > maxBodyBytes) return {};
  const std::string text = ReadBody(body, size);
  Rewind(body);
  EncodedBody encoded{coding, std::string(size - 1, '\0')};
  const std::size_t used =
      coding == BodyCoding::gzip ? Gzip(text, &encoded.bytes) : Zstd(text, &encoded.bytes);
  if (used == 0) return {};
  encoded.bytes.resize(used);
  return encoded;
}

std::size_t BodyEncoder::Gzip(std::string_view text, std::string* room) {
  if (gzip_) {
    deflateReset(gzip_.get());
  } else {
    auto stream = std::make_unique<z_stream>();
    constexpr int windowAndFormat = 15 + 16;
    constexpr int memoryLevel = 8;
    if (deflateInit2(stream.get(), gzipLevel, Z_DEFLATED, windowAndFormat, memoryLevel, Z_DEFAULT_STRATEGY) !=
        Z_OK)
      throw std::bad_alloc();
    gzip_.reset(stream.release());
  }
  gzip_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  gzip_->avail_in = static_cast<uInt>(text.size());
  gzip_->next_out = reinterpret_cast<Bytef*>(room->data());
  gzip_->avail_out = static_cast<uInt>(room->size());
  return deflate(gzip_.get(), Z_FINISH) == Z_STREAM_END ? gzip_->total_out : 0;
}

std::size_t BodyEncoder::Zstd(std::string_view text, std::string* room) {
  if (!zstd_) {
    zstd_.reset(ZSTD_createCCtx());
    if (!zstd_) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(zstd_.get(), ZSTD_c_compressionLevel, zstdLevel);
    ZSTD_CCtx_setParameter(zstd_.get(), ZSTD_c_checksumFlag, 1);
  }
  const std::size_t used = ZSTD_compress2(zstd_.get(), room->data(), room->size(), text.data(), text.size());
  return ZSTD_isError(used) ? 0 : used;
}

}  // namespace veld_report::host
