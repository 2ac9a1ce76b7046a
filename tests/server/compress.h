// Bodies as a sender compresses them, for the tests of what receives them.
#pragma once

#include <zlib.h>
#include <zstd.h>

#include <string>
#include <string_view>

namespace veld_report::server_test {

inline std::string Gzip(std::string_view text) {
  z_stream stream{};
  deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string body(deflateBound(&stream, text.size()), 0);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(body.data());
  stream.avail_out = static_cast<uInt>(body.size());
  deflate(&stream, Z_FINISH);
  body.resize(stream.total_out);
  deflateEnd(&stream);
  return body;
}

// With a checksum.
inline std::string Zstd(std::string_view text) {
  ZSTD_CCtx* const context = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
  std::string body(ZSTD_compressBound(text.size()), 0);
  body.resize(ZSTD_compress2(context, body.data(), body.size(), text.data(), text.size()));
  ZSTD_freeCCtx(context);
  return body;
}

}  // namespace veld_report::server_test
