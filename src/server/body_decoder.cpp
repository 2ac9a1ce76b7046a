#include "server/body_decoder.h"

#include <strings.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace veld_report::server {
namespace {

// The largest window that a zstd body may ask for (RFC 9659).
constexpr int maxWindowLog = 23;
constexpr std::size_t firstRoomBytes = std::size_t{64} * 1024;

// A body of one coding on its way through the decoder.
struct Streams {
  std::string_view rest;     // of the body
  char* room;                // for the text
  std::size_t roomBytes;     // not filled yet
  bool complete = false;     // what was read so far is a whole text
  std::string problem = {};  // empty: none
};

class Gzip {
 public:
  static constexpr char name[] = "gzip";
  Gzip() {
    constexpr int windowAndFormat = 15 + 16;  // any window, in gzip's own format only
    const int result = inflateInit2(&stream_, windowAndFormat);
    if (result == Z_MEM_ERROR) throw std::bad_alloc();
    if (result != Z_OK) throw std::runtime_error("zlib can't be started");
  }
  Gzip(const Gzip&) = delete;
  Gzip& operator=(const Gzip&) = delete;
  ~Gzip() { inflateEnd(&stream_); }

  void Run(Streams* streams) {
    if (streams->complete) inflateReset(&stream_);
    const auto piece = static_cast<uInt>(std::min<std::size_t>(streams->rest.size(), maxPiece));
    const auto room = static_cast<uInt>(std::min<std::size_t>(streams->roomBytes, maxPiece));
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(streams->rest.data()));
    stream_.avail_in = piece;
    stream_.next_out = reinterpret_cast<Bytef*>(streams->room);
    stream_.avail_out = room;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    streams->rest.remove_prefix(piece - stream_.avail_in);
    streams->room += room - stream_.avail_out;
    streams->roomBytes -= room - stream_.avail_out;
    streams->complete = result == Z_STREAM_END;
    if (result == Z_MEM_ERROR) throw std::bad_alloc();
    // It is Z_BUF_ERROR if there was nothing to do, for want of input or room.
    if (result == Z_OK || result == Z_STREAM_END || result == Z_BUF_ERROR) return;
    streams->problem = stream_.msg ? stream_.msg : "invalid data";
  }

 private:
  static constexpr std::size_t maxPiece = std::size_t{1} << 30;
  z_stream stream_{};
};

class Zstd {
 public:
  static constexpr char name[] = "zstd";
  Zstd() : stream_(ZSTD_createDStream()) {
    if (!stream_) throw std::bad_alloc();
    ZSTD_DCtx_setParameter(stream_.get(), ZSTD_d_windowLogMax, maxWindowLog);
  }

  void Run(Streams* streams) {
    ZSTD_inBuffer in{streams->rest.data(), streams->rest.size(), 0};
    ZSTD_outBuffer out{streams->room, streams->roomBytes, 0};
    const std::size_t result = ZSTD_decompressStream(stream_.get(), &out, &in);
    streams->rest.remove_prefix(in.pos);
    streams->room += out.pos;
    streams->roomBytes -= out.pos;
    streams->complete = result == 0;
    if (!ZSTD_isError(result)) return;
    if (ZSTD_getErrorCode(result) == ZSTD_error_memory_allocation) throw std::bad_alloc();
    streams->problem = ZSTD_getErrorName(result);
  }

 private:
  struct Freed {
    void operator()(ZSTD_DStream* stream) const { ZSTD_freeDStream(stream); }
  };
  std::unique_ptr<ZSTD_DStream, Freed> stream_;
};

// Makes room for more of the text, of which `used` bytes are there: one byte more than the limit at most, so
// that a text of exactly the limit can be told from a longer one.
bool Grow(std::string* text, std::size_t used, std::size_t limitBytes,
          const std::function<bool(std::size_t)>& hold) {
  const std::size_t wanted = std::min(std::max(firstRoomBytes, 2 * used), limitBytes + 1);
  if (!hold(wanted)) return false;
  text->reserve(wanted);
  text->resize(wanted);
  return true;
}

template <class Decoder>
DecodedBody Decode(std::string_view body, std::size_t limitBytes,
                   const std::function<bool(std::size_t)>& hold) {
  DecodedBody decoded;
  Decoder decoder;
  std::string& text = decoded.text;
  Streams streams{body, text.data(), 0};
  std::size_t used = 0;
  const auto at = [&] { return " at byte " + std::to_string(body.size() - streams.rest.size()); };
  for (;;) {
    if (streams.roomBytes == 0) {
      if (used > limitBytes) return {.end = DecodedBody::tooLarge};
      if (!Grow(&text, used, limitBytes, hold)) return {.end = DecodedBody::noRoom};
      streams.room = text.data() + used;
      streams.roomBytes = text.size() - used;
    }
    const std::size_t restBefore = streams.rest.size();
    decoder.Run(&streams);
    const std::size_t usedBefore = std::exchange(used, text.size() - streams.roomBytes);
    if (!streams.problem.empty()) {
      return {
          .end = DecodedBody::damaged,
          .problem = std::string("the body isn't valid ") + Decoder::name + at() + ": " + streams.problem};
    }
    if (streams.complete && streams.rest.empty()) break;
    if (streams.rest.size() == restBefore && used == usedBefore) {
      return {.end = DecodedBody::damaged,
              .problem = std::string("the body ends inside its ") + Decoder::name + " stream," + at()};
    }
  }
  if (used > limitBytes) return {.end = DecodedBody::tooLarge};
  text.resize(used);
  return decoded;
}

}  // namespace

std::optional<BodyCoding> ReadBodyCoding(std::string_view contentEncoding) {
  const std::string name(contentEncoding);
  const auto is = [&](const char* known) { return strcasecmp(name.c_str(), known) == 0; };
  if (is("") || is("identity")) return BodyCoding::identity;
  if (is("gzip") || is("x-gzip")) return BodyCoding::gzip;
  if (is("zstd")) return BodyCoding::zstd;
  return std::nullopt;
}

DecodedBody DecodeBody(BodyCoding coding, std::string_view body, std::size_t limitBytes,
                       const std::function<bool(std::size_t)>& hold) {
  return coding == BodyCoding::gzip ? Decode<Gzip>(body, limitBytes, hold)
                                    : Decode<Zstd>(body, limitBytes, hold);
}

}  // namespace veld_report::server
