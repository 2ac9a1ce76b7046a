// BodyEncoder compresses the bodies of one client's requests, one after another.
#pragma once

#include <zlib.h>
#include <zstd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "contract/io.h"
#include "host/http/body_coding.h"

namespace veld_report::host {

// A body as it is sent. With `none` it is sent as the request has it, and `bytes` is empty.
struct EncodedBody {
  BodyCoding coding = BodyCoding::none;
  std::string bytes{};
};

// What a coding needs (270 KB for gzip, 150 KB and more for zstd) is allocated for its first body and kept.
// One thread at a time.
class BodyEncoder {
 public:
  // A larger body isn't compressed: its client would do nothing else for too long.
  static constexpr std::uint64_t maxBodyBytes = std::uint64_t{16} << 20;

  // `body` is at its start and is left there. A body that wouldn't get smaller is returned with `none`.
  // Throws HttpTransferRefused if it can't be read, and std::bad_alloc.
  EncodedBody Encode(BodyCoding coding, zel::IIO& body);

 private:
  // Both return the number of bytes that they have written into `room`, or 0 if it doesn't suffice.
  std::size_t Gzip(std::string_view text, std::string* room);
  std::size_t Zstd(std::string_view text, std::string* room);

  struct GzipEnd {
    void operator()(z_stream* stream) const {
      deflateEnd(stream);
      delete stream;
    }
  };
  struct ZstdEnd {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  };
  std::unique_ptr<z_stream, GzipEnd> gzip_;  // null until the first body
  std::unique_ptr<ZSTD_CCtx, ZstdEnd> zstd_;
};

}  // namespace veld_report::host
