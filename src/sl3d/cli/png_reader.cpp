#include "png_reader.h"

#include <cstdlib>
#include <cstring>

#include <libdeflate.h>

namespace sl3d {

namespace {

// Images beyond these are OpenCV's to refuse: its own limit on pixels, and
// libpng's default limits on width and height.
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 30;
constexpr std::uint32_t kMaxSide = 1000000;
// Deflate cannot expand data by more than about 1032:1; a file claiming
// more image than that is damaged, and is not worth the memory.
constexpr std::uint64_t kMaxInflation = 1040;

std::uint32_t big_endian(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

bool is_type(const std::uint8_t* type, const char* name) { return std::memcmp(type, name, 4) == 0; }

struct Header {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
};

// Only the kind of PNG this decoder handles: 8-bit grey (colour type 0),
// deflate compression, adaptive filtering, no interlace.
bool read_header(const std::uint8_t* data, std::uint32_t length, Header& header) {
  if (length != 13) return false;
  header.width = big_endian(data);
  header.height = big_endian(data + 4);
  const bool grey8 = data[8] == 8 && data[9] == 0;
  const bool standard = data[10] == 0 && data[11] == 0 && data[12] == 0;
  const std::uint64_t pixels = std::uint64_t{header.width} * header.height;
  return grey8 && standard && header.width > 0 && header.height > 0 &&
         header.width <= kMaxSide && header.height <= kMaxSide && pixels <= kMaxPixels;
}

int paeth(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  if (pa <= pb && pa <= pc) return a;
  return pb <= pc ? b : c;
}

// Undoes the filter of one row (one byte per pixel); `prev` is the previous
// unfiltered row, or null for the first.
bool unfilter_row(int filter, const std::uint8_t* in, const std::uint8_t* prev, std::uint8_t* out,
                  int width) {
  switch (filter) {
    case 0:
      std::memcpy(out, in, static_cast<std::size_t>(width));
      return true;
    case 1:  // Sub
      out[0] = in[0];
      for (int x = 1; x < width; ++x) out[x] = static_cast<std::uint8_t>(in[x] + out[x - 1]);
      return true;
    case 2:  // Up
      for (int x = 0; x < width; ++x) {
        out[x] = static_cast<std::uint8_t>(in[x] + (prev ? prev[x] : 0));
      }
      return true;
    case 3:  // Average
      for (int x = 0; x < width; ++x) {
        const int left = x > 0 ? out[x - 1] : 0;
        const int up = prev ? prev[x] : 0;
        out[x] = static_cast<std::uint8_t>(in[x] + ((left + up) >> 1));
      }
      return true;
    case 4:  // Paeth
      for (int x = 0; x < width; ++x) {
        const int left = x > 0 ? out[x - 1] : 0;
        const int up = prev ? prev[x] : 0;
        const int up_left = (prev && x > 0) ? prev[x - 1] : 0;
        out[x] = static_cast<std::uint8_t>(in[x] + paeth(left, up, up_left));
      }
      return true;
    default:
      return false;
  }
}

}  // namespace

GreyPngDecoder::GreyPngDecoder() : inflater_(libdeflate_alloc_decompressor()) {}

GreyPngDecoder::~GreyPngDecoder() {
  if (inflater_ != nullptr) libdeflate_free_decompressor(inflater_);
}

bool GreyPngDecoder::decode(const std::uint8_t* data, std::size_t size, cv::Mat& image) {
  static const std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (inflater_ == nullptr || size < 8 || std::memcmp(data, kSignature, 8) != 0) return false;

  // Walk the chunks: IHDR first, then the IDATs in one run, up to IEND.
  // Ancillary chunks (lower-case first letter) are skipped, except tRNS,
  // which could make the image grey with alpha.
  Header header;
  bool have_header = false;
  bool have_end = false;
  int idat_runs = 0;
  bool in_idat = false;
  compressed_.clear();
  std::size_t pos = 8;
  while (!have_end) {
    if (size - pos < 12) return false;
    const std::uint32_t length = big_endian(data + pos);
    if (length > size - pos - 12) return false;
    const std::uint8_t* type = data + pos + 4;
    const std::uint8_t* body = data + pos + 8;
    const std::uint32_t crc = big_endian(body + length);
    if (libdeflate_crc32(0, type, length + 4u) != crc) return false;
    const bool is_idat = is_type(type, "IDAT");
    if (is_idat && !in_idat) ++idat_runs;
    in_idat = is_idat;
    if (!have_header) {
      if (!is_type(type, "IHDR") || !read_header(body, length, header)) return false;
      have_header = true;
    } else if (is_idat) {
      compressed_.insert(compressed_.end(), body, body + length);
    } else if (is_type(type, "IEND")) {
      have_end = true;
    } else if (!(type[0] & 0x20) || is_type(type, "tRNS")) {
      return false;  // PLTE, another IHDR, or an unknown critical chunk
    }
    pos += 12u + length;
  }
  if (idat_runs != 1) return false;

  const std::size_t stride = std::size_t{header.width} + 1;
  const std::size_t filtered_size = stride * header.height;
  if (filtered_size > kMaxInflation * (compressed_.size() + 64)) return false;
  filtered_.resize(filtered_size);
  std::size_t produced = 0;
  if (libdeflate_zlib_decompress(inflater_, compressed_.data(), compressed_.size(),
                                 filtered_.data(), filtered_size,
                                 &produced) != LIBDEFLATE_SUCCESS ||
      produced != filtered_size) {
    return false;
  }

  const int width = static_cast<int>(header.width);
  const int height = static_cast<int>(header.height);
  image.create(height, width, CV_8UC1);
  for (int y = 0; y < height; ++y) {
    const std::uint8_t* row = filtered_.data() + static_cast<std::size_t>(y) * stride;
    const std::uint8_t* prev = y > 0 ? image.ptr<std::uint8_t>(y - 1) : nullptr;
    if (!unfilter_row(row[0], row + 1, prev, image.ptr<std::uint8_t>(y), width)) return false;
  }
  return true;
}

}  // namespace sl3d
