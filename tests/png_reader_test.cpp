// The tool's PNG decoder: every row filter of 8-bit grey files decodes to
// the original pixels (files written here, filter chosen per row, and files
// written by OpenCV), and every file it does not handle or finds anything
// wrong with is declined, so that OpenCV decides on it as before.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <libdeflate.h>
#include <opencv2/imgcodecs.hpp>

#include "../src/sl3d/cli/png_reader.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void put32(Bytes& out, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<std::uint8_t>(v >> s));
}

void chunk(Bytes& out, const char* type, const Bytes& body, bool good_crc = true) {
  put32(out, static_cast<std::uint32_t>(body.size()));
  Bytes typed(type, type + 4);
  typed.insert(typed.end(), body.begin(), body.end());
  out.insert(out.end(), typed.begin(), typed.end());
  put32(out, libdeflate_crc32(0, typed.data(), typed.size()) ^ (good_crc ? 0u : 1u));
}

int paeth(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  return pa <= pb && pa <= pc ? a : (pb <= pc ? b : c);
}

// What can be wrong with a hand-made file.
struct Flaws {
  int bit_depth = 8, colour_type = 0, interlace = 0;
  bool trns = false, bad_crc = false, split_idat = false, truncate = false;
  int bad_filter_row = -1;
};

// An 8-bit grey PNG of `image`, row y filtered with filter y % 5.
Bytes make_png(const cv::Mat& image, const Flaws& f = Flaws()) {
  Bytes raw;
  for (int y = 0; y < image.rows; ++y) {
    const int filter = y == f.bad_filter_row ? 7 : y % 5;
    raw.push_back(static_cast<std::uint8_t>(filter));
    for (int x = 0; x < image.cols; ++x) {
      const int a = x > 0 ? image.at<std::uint8_t>(y, x - 1) : 0;
      const int b = y > 0 ? image.at<std::uint8_t>(y - 1, x) : 0;
      const int c = x > 0 && y > 0 ? image.at<std::uint8_t>(y - 1, x - 1) : 0;
      const int predictors[5] = {0, a, b, (a + b) / 2, paeth(a, b, c)};
      raw.push_back(static_cast<std::uint8_t>(image.at<std::uint8_t>(y, x) - predictors[filter % 5]));
    }
  }
  libdeflate_compressor* z = libdeflate_alloc_compressor(6);
  Bytes packed(libdeflate_zlib_compress_bound(z, raw.size()));
  packed.resize(libdeflate_zlib_compress(z, raw.data(), raw.size(), packed.data(), packed.size()));
  libdeflate_free_compressor(z);

  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  Bytes header;
  put32(header, image.cols);
  put32(header, image.rows);
  header.insert(header.end(), {static_cast<std::uint8_t>(f.bit_depth),
                               static_cast<std::uint8_t>(f.colour_type), 0, 0,
                               static_cast<std::uint8_t>(f.interlace)});
  chunk(png, "IHDR", header);
  chunk(png, "tEXt", Bytes{'k', 0, 'v'});
  if (f.trns) chunk(png, "tRNS", Bytes{0, 0});
  const std::size_t half = packed.size() / 2;
  chunk(png, "IDAT", Bytes(packed.begin(), packed.begin() + half), !f.bad_crc);
  if (f.split_idat) chunk(png, "tIME", Bytes(7, 1));
  chunk(png, "IDAT", Bytes(packed.begin() + half, packed.end()));
  chunk(png, "IEND", Bytes());
  if (f.truncate) png.resize(png.size() - 20);
  return png;
}

cv::Mat test_image(int rows, int cols) {
  cv::Mat image(rows, cols, CV_8UC1);
  cv::randu(image, 0, 256);
  image.rowRange(0, rows / 2) /= 3;  // smooth and noisy parts
  return image;
}

TEST(GreyPngDecoder, EveryRowFilterDecodesToThePixels) {
  sl3d::GreyPngDecoder decoder;
  for (const cv::Size size : {cv::Size(1, 1), cv::Size(7, 5), cv::Size(640, 480)}) {
    const cv::Mat image = test_image(size.height, size.width);
    const Bytes png = make_png(image);
    cv::Mat decoded;
    ASSERT_TRUE(decoder.decode(png.data(), png.size(), decoded)) << size;
    EXPECT_EQ(cv::countNonZero(decoded != image), 0) << size;
    // OpenCV reads the same file as the same image.
    EXPECT_EQ(cv::countNonZero(cv::imdecode(png, cv::IMREAD_UNCHANGED) != image), 0) << size;
  }
  // Files OpenCV writes, at its fastest and its smallest.
  const cv::Mat image = test_image(240, 320);
  for (int level : {1, 9}) {
    std::vector<std::uint8_t> png;
    ASSERT_TRUE(cv::imencode(".png", image, png, {cv::IMWRITE_PNG_COMPRESSION, level}));
    cv::Mat decoded;
    ASSERT_TRUE(decoder.decode(png.data(), png.size(), decoded)) << level;
    EXPECT_EQ(cv::countNonZero(decoded != image), 0) << level;
  }
}

TEST(GreyPngDecoder, DeclinesWhatItDoesNotHandleOrFindsDamaged) {
  const cv::Mat image = test_image(16, 24);
  const auto flawed = [](auto set) {
    Flaws f;
    set(f);
    return f;
  };
  const Flaws cases[] = {
      flawed([](Flaws& f) { f.bit_depth = 16; }),    flawed([](Flaws& f) { f.colour_type = 2; }),
      flawed([](Flaws& f) { f.interlace = 1; }),     flawed([](Flaws& f) { f.trns = true; }),
      flawed([](Flaws& f) { f.bad_crc = true; }),    flawed([](Flaws& f) { f.split_idat = true; }),
      flawed([](Flaws& f) { f.truncate = true; }),   flawed([](Flaws& f) { f.bad_filter_row = 3; }),
  };
  sl3d::GreyPngDecoder decoder;
  for (std::size_t k = 0; k < sizeof cases / sizeof cases[0]; ++k) {
    const Bytes png = make_png(image, cases[k]);
    cv::Mat decoded;
    EXPECT_FALSE(decoder.decode(png.data(), png.size(), decoded)) << "case " << k;
  }
  // Not a PNG at all, and a PNG cut inside its header.
  const Bytes good = make_png(image);
  cv::Mat decoded;
  EXPECT_FALSE(decoder.decode(good.data(), 20, decoded));
  const Bytes text = {'h', 'e', 'l', 'l', 'o', ' ', 'p', 'n', 'g'};
  EXPECT_FALSE(decoder.decode(text.data(), text.size(), decoded));
  // The decoder is reusable after declining.
  EXPECT_TRUE(decoder.decode(good.data(), good.size(), decoded));
}

}  // namespace
