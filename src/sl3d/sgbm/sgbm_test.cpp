// Block matching on a rendered textured stereo pair with known depth: the
// disparity list and status image, image intake, reprojection through the
// pair's Q and the propagation of matcher errors.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/sgbm/sgbm.h>
#include <sl3d/sim/virtual_sensor.h>

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 256;
constexpr double kFocal = 350.0;
constexpr double kBaseline = 100.0;  // the rig's default

struct Destroy {
  void operator()(iPointCloudGenerator* g) const { g->destroy(); }
};
using SgbmPtr = std::unique_ptr<SGBMaching, Destroy>;

SGBMParams params_with(int min_disparity, int num_disparities) {
  SGBMParams p;
  p.min_disparity = min_disparity;
  p.num_disparities = num_disparities;
  return p;
}

// A block-matching generator for the rendered size, through the factory.
SgbmPtr make(const SGBMParams& params) {
  SgbmPtr gen(dynamic_cast<SGBMaching*>(createPointCloudGenerator(1)));
  EXPECT_NE(gen, nullptr);
  gen->verbose = 0;
  EXPECT_TRUE(gen->init(kWidth, kHeight));
  SGBMParams copy = params;
  gen->setparams(&copy);
  return gen;
}

std::vector<double> records(const SGBMaching& gen) {
  return std::vector<double>(gen.get_disparity_ptr(),
                             gen.get_disparity_ptr() + 4 * gen.get_disparity_cnt());
}

// Renders once: the default scene (a sphere 720..900 mm away before a wall
// at about 1100 mm) seen by a 320 x 256 pair; true disparities are about
// 31..49 px.
class RenderedPair : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    sl3d::SimRig rig;
    rig.width = kWidth;
    rig.height = kHeight;
    rig.focal_px = kFocal;
    rig.baseline_mm = kBaseline;
    const sl3d::VirtualSensor sensor(rig);
    left_ = sensor.render_textured(0);
    right_ = sensor.render_textured(1);
    truth_ = sensor.ground_truth();
    ASSERT_TRUE(left_.isContinuous() && right_.isContinuous());
  }

  // Hands in the packed pair (step 0) and the pair's Q.
  static SgbmPtr make_with_pair(const SGBMParams& params) {
    SgbmPtr gen = make(params);
    gen->set_camera_params(truth_.q.data());
    gen->setpict(left_.data, 0, 0, 0);
    gen->setpict(right_.data, 0, 1, 0);
    return gen;
  }

  static inline cv::Mat left_, right_;
  static inline sl3d::SimGroundTruth truth_;
};

TEST_F(RenderedPair, RecordsStatusAndDepthAgreeWithTruth) {
  struct Search {
    int min_disparity, num_disparities;
    double min_coverage;  // fraction of the pixels that must give a point
    double max_p95;       // bound on the 95th percentile disparity error, px
  };
  // Measured on this pair: median disparity error 0.15 px (3..5 mm of
  // depth); 95th percentile 0.36 px for the range covering the scene and
  // 0.99 px for the one starting inside the wall's disparities, where much
  // of the wall lands at exactly the minimum, which must count as rejected.
  for (const Search& search : {Search{0, 64, 0.7, 0.6}, Search{32, 32, 0.2, 1.5}}) {
    const int min_disparity = search.min_disparity;
    SCOPED_TRACE(min_disparity);
    SgbmPtr gen = make_with_pair(params_with(min_disparity, search.num_disparities));
    const int n = gen->exec();
    ASSERT_EQ(n, gen->get_disparity_cnt());
    EXPECT_GT(n, kWidth * kHeight * search.min_coverage);

    // One record (column, row, disparity, 1) per accepted pixel, in raster
    // order, each with a disparity strictly above the minimum; every other
    // pixel is rejected.
    const cv::Mat& status = gen->status_image();
    ASSERT_EQ(cv::countNonZero(status == SGBMaching::kAccepted), n);
    ASSERT_EQ(cv::countNonZero(status == SGBMaching::kRejected), kWidth * kHeight - n);
    const double* rec = gen->get_disparity_ptr();
    for (int i = 0; i < n; ++i, rec += 4) {
      ASSERT_EQ(status.at<unsigned char>(int(rec[1]), int(rec[0])), SGBMaching::kAccepted) << i;
      if (i > 0) ASSERT_GT(rec[1] * kWidth + rec[0], rec[-3] * kWidth + rec[-4]) << i;
      ASSERT_GT(rec[2], min_disparity) << i;
      ASSERT_LT(rec[2], min_disparity + search.num_disparities) << i;
      ASSERT_EQ(rec[3], 1.0) << i;
    }

    // The same pair again, with filler after every row and images for
    // cameras other than 0 and 1 (ignored): the list is replaced, not
    // appended to, and is the same.
    const std::vector<double> first = records(*gen);
    cv::Mat padded[2];
    for (int c = 0; c < 2; ++c) {
      padded[c] = cv::Mat(kHeight, kWidth + 13, CV_8UC1, cv::Scalar(40 + 150 * c));
      (c == 0 ? left_ : right_).copyTo(padded[c].colRange(0, kWidth));
      gen->setpict(padded[c].data, padded[c].step, c, 5 + c);
    }
    gen->setpict(padded[1].data + 1, padded[1].step, 2, 0);
    gen->setpict(padded[0].data + 1, padded[0].step, -1, 0);
    ASSERT_EQ(gen->exec(), n);
    ASSERT_EQ(records(*gen), first);

    // W = d / baseline > 0 for every record, so each becomes a point, coloured
    // by the left image.
    ASSERT_EQ(gen->genPC(0), n);
    const PointCloudElement* pts = gen->get_pointcloud_ptr();
    const int* grid = gen->get_rangegrid();
    std::vector<double> depth_error, disparity_error;
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const int y = i / kWidth, x = i % kWidth;
      ASSERT_EQ(grid[i] >= 0, status.at<unsigned char>(y, x) == SGBMaching::kAccepted) << i;
      if (grid[i] < 0) continue;
      const PointCloudElement& p = pts[grid[i]];
      ASSERT_EQ(p.red, left_.at<unsigned char>(y, x)) << i;
      ASSERT_EQ(p.green, p.red);
      ASSERT_EQ(p.blue, p.red);
      const double z = truth_.depth.at<double>(y, x);
      if (!std::isfinite(z)) continue;
      depth_error.push_back(std::fabs(p.z - z));
      disparity_error.push_back(std::fabs(kFocal * kBaseline / z - kFocal * kBaseline / p.z));
    }
    ASSERT_GT(depth_error.size(), static_cast<std::size_t>(n) * 9 / 10);
    std::sort(depth_error.begin(), depth_error.end());
    std::sort(disparity_error.begin(), disparity_error.end());
    const std::size_t m = disparity_error.size();
    EXPECT_LT(depth_error[m / 2], 8.0);
    EXPECT_LT(disparity_error[m / 2], 0.25);
    EXPECT_LT(disparity_error[m * 95 / 100], search.max_p95);
  }
}

TEST_F(RenderedPair, MatcherErrorsPropagateAndCrashingParametersAreRefused) {
  // OpenCV's own refusal (no disparity to search), and parameters with
  // which its matcher would crash or abort: a negative count, blocks larger
  // than the image or whose P2 overflows, a range overflowing an int, and a
  // 3-way search leaving no column to match. {min, count, block, mode}:
  for (auto [min, count, block, mode] :
       {std::array{0, 0, 5, 0}, {0, -16, 5, 0}, {0, 64, 4001, 0}, {0, 64, 100001, 0},
        {0, 64, 257, 0}, {INT_MAX - 8, 16, 5, 0}, {0, 320, 5, 2}, {-400, 16, 5, 2},
        {INT_MIN, 16, 5, 2}}) {
    SGBMParams params = params_with(min, count);
    params.block_size = block;
    params.mode = mode;
    EXPECT_THROW(make_with_pair(params)->exec(), cv::Exception)
        << min << " " << count << " " << block << " " << mode;
  }
  // The largest block the image holds still runs.
  SGBMParams largest = params_with(0, 64);
  largest.block_size = 255;
  EXPECT_NO_THROW(make_with_pair(largest)->exec());

  // So does one handed no images: nothing is allocated before init.
  SgbmPtr blank(dynamic_cast<SGBMaching*>(createPointCloudGenerator(1)));
  ASSERT_NE(blank, nullptr);
  SGBMParams params = params_with(0, 64);
  blank->setparams(&params);
  EXPECT_THROW(blank->exec(), cv::Exception);
  EXPECT_EQ(blank->get_disparity_cnt(), 0);
}

}  // namespace
