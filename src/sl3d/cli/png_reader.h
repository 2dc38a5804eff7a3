#ifndef SL3D_CLI_PNG_READER_H_
#define SL3D_CLI_PNG_READER_H_

// The tool's own decoder for the PNG files it reads most: 8-bit grey,
// non-interlaced, as cameras and `sl3d synth` write them.
//
// Why not only OpenCV's decoder: a scan reads 26 such frames, and through
// OpenCV (libpng and zlib, row by row into a fresh image) each takes about
// four times as long as inflating the file's data in one call to libdeflate
// and undoing the row filters here. Every other kind of PNG, and every file
// this decoder finds anything wrong with, is left to OpenCV, so the verdict
// on unusual or damaged files stays OpenCV's.

#include <cstddef>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

struct libdeflate_decompressor;

namespace sl3d {

// Scratch memory of the decoder, reused from one file to the next; one per
// thread.
class GreyPngDecoder {
 public:
  GreyPngDecoder();
  ~GreyPngDecoder();
  GreyPngDecoder(const GreyPngDecoder&) = delete;
  GreyPngDecoder& operator=(const GreyPngDecoder&) = delete;

  // Decodes `size` bytes of an 8-bit grey, non-interlaced PNG file into
  // `image` (CV_8UC1; its memory is reused when it already has the file's
  // size). Returns false, leaving `image` unspecified, for any other kind of
  // PNG and for any file that is not well-formed (bad chunk CRC, truncated
  // or oversized data, unknown row filter, ...): the caller then asks
  // OpenCV.
  bool decode(const std::uint8_t* data, std::size_t size, cv::Mat& image);

 private:
  libdeflate_decompressor* inflater_ = nullptr;
  std::vector<std::uint8_t> compressed_;
  std::vector<std::uint8_t> filtered_;
};

}  // namespace sl3d

#endif  // SL3D_CLI_PNG_READER_H_
