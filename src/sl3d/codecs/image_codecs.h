// OpenCV's image file codecs, loaded on first use.
//
// libopencv_imgcodecs brings about 140 shared libraries with it (GDAL and
// its dependencies, the TIFF, EXR, JPEG 2000 and DICOM readers). Linked in,
// they are mapped and relocated at the start of every process that loads
// libsl3d: `sl3d --version` took 0.15 s instead of 0.03 s, and a scan spent
// 140 ms of 380 ms before main(). Most callers never read or write an image
// file through OpenCV, so the library and the tool open the codecs library
// (by its exact soname) only when one of these functions is first called.
//
// Each function has the contract of the OpenCV function it stands for,
// exceptions included. In addition each throws cv::Exception naming the
// codecs library when that cannot be loaded or lacks one of the functions.
// Thread-safe: the library is loaded once, and never unloaded.

#ifndef SL3D_CODECS_IMAGE_CODECS_H_
#define SL3D_CODECS_IMAGE_CODECS_H_

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace sl3d::detail {

// The OpenCV functions used, as pointers to their exact signatures.
struct ImageCodecs {
  using WriteFunction = bool (*)(const cv::String& filename, const cv::_InputArray& image,
                                 const std::vector<int>& params);
  using EncodeFunction = bool (*)(const cv::String& extension, const cv::_InputArray& image,
                                  std::vector<uchar>& bytes, const std::vector<int>& params);
  using DecodeFunction = cv::Mat (*)(const cv::_InputArray& bytes, int flags);

  WriteFunction imwrite = nullptr;
  EncodeFunction imencode = nullptr;
  DecodeFunction imdecode = nullptr;

  // Opens the shared library `soname` (dlopen, never closed) and resolves
  // the three functions. Throws cv::Exception naming the library (and the
  // function) when the library cannot be opened or a function is missing.
  static ImageCodecs open(const std::string& soname);
};

// The process's codecs, opened on the first call (see ImageCodecs::open).
const ImageCodecs& image_codecs();

// cv::imwrite(path, image, params).
bool write_image(const std::string& path, cv::InputArray image,
                 const std::vector<int>& params = {});
// cv::imencode(extension, image, bytes, params).
bool encode_image(const std::string& extension, cv::InputArray image,
                  std::vector<uchar>& bytes, const std::vector<int>& params = {});
// cv::imdecode(bytes, flags).
cv::Mat decode_image(cv::InputArray bytes, int flags);

}  // namespace sl3d::detail

#endif  // SL3D_CODECS_IMAGE_CODECS_H_
