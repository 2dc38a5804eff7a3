// Captures and board images: the tool's PNG intake, which tries its own
// grey-PNG decoder first and leaves every other file to OpenCV. A CliError
// naming the file is the only acceptable failure.
//
// Mutated PNG files rarely get past the decoder's chunk CRCs and never past
// the zlib checksum, so the first input byte picks what the rest is:
//   0  a PNG file, as is;
//   1  a PNG file whose chunk CRCs are put right here (reaches the chunk walk
//      and the header checks);
//   2  width and height less one (16 bits each, kept small) and the filtered rows,
//      which are compressed and wrapped into a well-formed file here (reaches
//      the size checks and the row filters).
// Whenever the decoder accepts a file, OpenCV must decode it to the same
// image: the decoder is only a faster way to the same result.
#include <libdeflate.h>

#include <cstring>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "../src/sl3d/cli/errors.h"
#include "../src/sl3d/cli/io.h"
#include "../src/sl3d/cli/png_reader.h"
#include "fuzz_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void put_be32(Bytes& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(std::uint8_t(v >> shift));
}

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

// Rewrites the CRC of every whole chunk after the 8-byte signature.
void fix_crcs(Bytes& png) {
  std::size_t pos = 8;
  while (png.size() >= pos + 12) {
    const std::uint32_t length = be32(&png[pos]);
    if (length > png.size() - pos - 12) break;
    const std::uint32_t crc = libdeflate_crc32(0, &png[pos + 4], length + 4u);
    for (int i = 0; i < 4; ++i) png[pos + 8 + length + i] = std::uint8_t(crc >> (24 - 8 * i));
    pos += 12u + length;
  }
}

void put_chunk(Bytes& png, const char* type, const Bytes& body) {
  put_be32(png, static_cast<std::uint32_t>(body.size()));
  const std::size_t start = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), body.begin(), body.end());
  put_be32(png, libdeflate_crc32(0, &png[start], body.size() + 4));
}

Bytes build_png(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return {};
  const std::uint32_t width = 1 + (((data[0] << 8) | data[1]) % 300);
  const std::uint32_t height = 1 + (((data[2] << 8) | data[3]) % 300);
  Bytes header;
  put_be32(header, width);
  put_be32(header, height);
  header.insert(header.end(), {8, 0, 0, 0, 0});
  libdeflate_compressor* deflater = libdeflate_alloc_compressor(1);
  Bytes idat(libdeflate_zlib_compress_bound(deflater, size - 4));
  idat.resize(libdeflate_zlib_compress(deflater, data + 4, size - 4, idat.data(), idat.size()));
  libdeflate_free_compressor(deflater);
  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  put_chunk(png, "IHDR", header);
  put_chunk(png, "IDAT", idat);
  put_chunk(png, "IEND", {});
  return png;
}

void check_against_opencv(const Bytes& png) {
  sl3d::GreyPngDecoder decoder;
  cv::Mat ours;
  if (!decoder.decode(png.data(), png.size(), ours)) return;
  const cv::Mat theirs = cv::imdecode(png, cv::IMREAD_UNCHANGED);
  if (theirs.empty() || theirs.type() != ours.type() || theirs.size() != ours.size() ||
      cv::norm(theirs, ours, cv::NORM_INF) != 0) {
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  Bytes png;
  switch (data[0] % 3) {
    case 0:
      png.assign(data + 1, data + size);
      break;
    case 1:
      png.assign(data + 1, data + size);
      fix_crcs(png);
      break;
    default:
      png = build_png(data + 1, size - 1);
  }
  const std::string path = sl3d_fuzz::write_scratch("image.png", png.data(), png.size());
  try {
    sl3d::read_grey_png(path);
  } catch (const sl3d::CliError&) {
  }
  check_against_opencv(png);
  return 0;
}
