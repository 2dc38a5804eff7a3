// Pre-processing of board images: gamma switched off at exactly 1.0, each
// binarisation type, and the fixed order of the steps, checked against the
// same OpenCV operations composed by hand.

#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/imgproc.hpp>

#include <sl3d/calibboard/PreProcessor.h>

namespace {

PreProcessor configured(const PreProcParams& params) {
  PreProcessor pre;
  PreProcParams copy = params;
  pre.init_preproc(copy);
  return pre;
}

// A smooth two-level image with noise: every step changes it.
cv::Mat board_like_image() {
  cv::Mat img(60, 80, CV_8U);
  cv::RNG rng(7);
  for (int y = 0; y < img.rows; ++y)
    for (int x = 0; x < img.cols; ++x) {
      const double base = std::hypot(x - 40, y - 30) < 15 ? 60.0 : 170.0;
      img.at<unsigned char>(y, x) =
          cv::saturate_cast<unsigned char>(base + x * 0.8 + rng.gaussian(12.0));
    }
  return img;
}

cv::Mat apply_table(const cv::Mat& src, const std::vector<int>& table) {
  cv::Mat dst = src.clone();
  for (auto it = dst.begin<unsigned char>(); it != dst.end<unsigned char>(); ++it)
    *it = static_cast<unsigned char>(table[*it]);
  return dst;
}

bool equal(const cv::Mat& x, const cv::Mat& y) {
  return x.size() == y.size() && x.type() == y.type() && cv::countNonZero(x != y) == 0;
}

TEST(PreProcessor, GammaIsOffAtExactlyOne) {
  PreProcParams p;
  p.bin_type = 0;
  p.bin_param0 = 100;
  EXPECT_TRUE(configured(p).gamma_table.empty());

  // 2.0 then 1.0: the table stays but is not applied.
  PreProcessor pre;
  p.gamma_correction = 2.0;
  pre.init_preproc(p);
  p.gamma_correction = 1.0;
  pre.init_preproc(p);
  EXPECT_EQ(pre.gamma_table.size(), 256u);
  cv::Mat img = board_like_image();
  cv::Mat expected;
  cv::threshold(img, expected, 100, 255, cv::THRESH_BINARY);
  EXPECT_TRUE(equal(pre.preprocess(img), expected));

  // Just above 1.0 is a gamma, and it moves values near the threshold.
  p.gamma_correction = 1.0 + 1e-3;
  pre.init_preproc(p);
  cv::Mat ramp(1, 256, CV_8U);
  for (int i = 0; i < 256; ++i) ramp.at<unsigned char>(0, i) = static_cast<unsigned char>(i);
  cv::threshold(apply_table(ramp, pre.gamma_table), expected, 100, 255, cv::THRESH_BINARY);
  EXPECT_TRUE(equal(pre.preprocess(ramp), expected));
}

TEST(PreProcessor, BinarisationTypes) {
  cv::Mat img = board_like_image();
  cv::Mat expected;

  PreProcParams p;  // defaults: Otsu, everything else off
  cv::threshold(img, expected, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  EXPECT_TRUE(equal(configured(p).preprocess(img), expected));

  p.bin_type = 0;
  p.bin_param0 = 128;
  cv::Mat edge = (cv::Mat_<unsigned char>(1, 3) << 127, 128, 129);
  const cv::Mat fixed = configured(p).preprocess(edge);
  EXPECT_EQ(fixed.at<unsigned char>(0, 0), 0);
  EXPECT_EQ(fixed.at<unsigned char>(0, 1), 0);
  EXPECT_EQ(fixed.at<unsigned char>(0, 2), 255);

  p.bin_type = 2;
  p.bin_param0 = 11;
  p.bin_param1 = 4;
  cv::adaptiveThreshold(img, expected, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, 11, 4);
  EXPECT_TRUE(equal(configured(p).preprocess(img), expected));

  for (int unknown : {3, -1}) {
    p.bin_type = unknown;
    EXPECT_TRUE(configured(p).preprocess(img).empty());
  }
}

TEST(PreProcessor, StepsRunInFixedOrderOnACopy) {
  cv::Mat img = board_like_image();
  const cv::Mat original = img.clone();
  PreProcParams p;
  p.do_reverse_bw = p.do_smoothing = p.do_equalize_hist = true;
  p.gamma_correction = 2.2;
  p.bin_type = 0;
  p.bin_param0 = 140;
  PreProcessor pre = configured(p);
  const std::vector<int>& table = pre.gamma_table;

  auto finish = [](const cv::Mat& m) {
    cv::Mat b;
    cv::threshold(m, b, 140, 255, cv::THRESH_BINARY);
    return b;
  };
  auto median = [](const cv::Mat& m) { cv::Mat o; cv::medianBlur(m, o, 3); return o; };
  auto equalize = [](const cv::Mat& m) { cv::Mat o; cv::equalizeHist(m, o); return o; };
  auto invert = [](const cv::Mat& m) { return cv::Mat(255 - m); };

  const cv::Mat expected = finish(equalize(apply_table(median(invert(img)), table)));
  const cv::Mat result = pre.preprocess(img);
  EXPECT_TRUE(equal(result, expected));
  EXPECT_TRUE(equal(img, original));

  // Equalising before gamma would give another image.
  EXPECT_FALSE(equal(result, finish(apply_table(equalize(median(invert(img))), table))));

  // Gamma acts on the inverted image (equalisation would hide the
  // difference, so it is off here).
  p.do_smoothing = p.do_equalize_hist = false;
  pre = configured(p);
  const cv::Mat inverted_first = pre.preprocess(img);
  EXPECT_TRUE(equal(inverted_first, finish(apply_table(invert(img), table))));
  EXPECT_FALSE(equal(inverted_first, finish(invert(apply_table(img, table)))));
}

}  // namespace
