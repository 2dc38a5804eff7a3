// The lazily loaded codecs: every function resolves in the installed
// OpenCV, behaves as OpenCV's own, and a missing library or function is
// reported, not a crash.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include <opencv2/imgcodecs.hpp>

#include <sl3d/codecs/image_codecs.h>

namespace {

using sl3d::detail::ImageCodecs;

std::string open_error(const std::string& soname) {
  try {
    ImageCodecs::open(soname);
  } catch (const cv::Exception& e) {
    return e.err;
  }
  return "";
}

TEST(ImageCodecs, ResolvesEveryFunctionOrNamesWhatIsMissing) {
  const ImageCodecs& codecs = sl3d::detail::image_codecs();
  EXPECT_TRUE(codecs.imwrite && codecs.imencode && codecs.imdecode);
  EXPECT_NE(open_error("libsl3d_no_such_codecs.so").find("libsl3d_no_such_codecs.so"),
            std::string::npos);
  EXPECT_NE(open_error("libc.so.6").find("libc.so.6 has no function cv::imwrite"),
            std::string::npos);
}

// Encoding and decoding run in every tool test that reads captures or
// writes PNG images; writing files is left to check here.
TEST(ImageCodecs, WriteFilesAsOpenCvDoes) {
  const cv::Mat image(3, 4, CV_8UC1, cv::Scalar(9));
  const std::string path = testing::TempDir() + "image_codecs_test.pgm";
  ASSERT_TRUE(sl3d::detail::write_image(path, image));
  EXPECT_EQ(cv::countNonZero(cv::imread(path, cv::IMREAD_UNCHANGED) != image), 0);
  std::remove(path.c_str());
  // OpenCV's own errors pass through.
  EXPECT_THROW(sl3d::detail::write_image(path + ".no-such-format", image), cv::Exception);
}

}  // namespace
