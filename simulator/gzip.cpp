#include "simulator/gzip.h"

#include <zlib.h>

#include <stdexcept>

namespace quenmark::simulator {

std::string Gzip(std::string_view text) {
  constexpr int kGzipWindow = 15 + 16;  // largest window, gzip wrapping
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("cannot compress");
  }
  std::string input{text};
  std::string out(deflateBound(&stream, input.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("cannot compress");
  return out;
}

}  // namespace quenmark::simulator
