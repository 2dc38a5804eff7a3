// The demo's calibration set (three-ring board 11 x 8, twelve stereo views
// at 1280 x 1024, noise and blur as the demo renders them) calibrated from
// re-measured marker centres with the circle-centre refinement, against the
// virtual sensor's true cameras.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>

#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/precise_calibration.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>

namespace sl3d {
namespace {

TEST(PreciseCalibration, DemoSetReachesATenthOfAPixel) {
  const SimRig rig;  // 1280 x 1024
  const std::array<SimCamera, 2> cameras = default_raw_cameras(rig);
  const BoardGrid grid = BoardGrid::calibration();
  SynthBoard board = synth_board(BoardFamily::kPellux, min_radius_for(grid, rig.focal_px, 1000.0),
                                 grid);
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  const std::vector<StereoBoardView> views = render_calibration_set(
      cameras, board.layout,
      calibration_poses(cameras, board.layout, calibration_views(BoardFamily::kPellux), 600.0,
                        1000.0),
      imaging);

  StereoCalib calib(board_type(BoardFamily::kPellux));
  CameraCalibParams cp;
  cp.flags = recommended_calibration_flags();
  ASSERT_TRUE(calib.set_parameters(cp, board.board, board.marker, board.pre));
  std::vector<std::vector<cv::Mat>> images(2);
  std::vector<std::vector<std::vector<cv::Point2f>>> points(2);
  int found = 0;
  for (const StereoBoardView& view : views) {
    for (int c = 0; c < 2; ++c) {
      cv::Mat image = view.images[c].image.clone();
      std::vector<cv::Point2f> markers;
      ASSERT_EQ(calib.recognizer->recognize(image, markers), 0);
      found += int(std::count_if(markers.begin(), markers.end(),
                                 [](const cv::Point2f& p) { return p.x != FLT_MAX; }));
      images[c].push_back(view.images[c].image);
      points[c].push_back(markers);
    }
  }

  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors(2);
  PreciseCalibrationOptions options;
  options.refinement.circle_radius = board.layout.radius;
  const PreciseCalibration r =
      calibrate_stereo_precisely(calib, images, points, cams, errors, options);
  ASSERT_EQ(r.code, 0) << r.message;
  EXPECT_TRUE(r.refinement.converged);
  EXPECT_EQ(r.remeasured, found);
  EXPECT_EQ(r.unmeasured, 0);
  // The recognizer's centres leave a stereo RMS of 0.115 px.
  EXPECT_LT(r.first_rms, 0.03);

  const PairCalibrationError e = calibration_error(cams.data(), cameras);
  double intrinsics = 0.0;
  for (const CameraCalibrationError& c : e.cameras)
    intrinsics = std::max({intrinsics, std::fabs(c.fx), std::fabs(c.fy), std::fabs(c.cx),
                           std::fabs(c.cy)});
  std::printf("first RMS %.4f px, %zu refinement steps; largest focal-length or principal-point "
              "error %.3f px, baseline %+.4f mm, rotation %.4f deg\n",
              r.first_rms, r.refinement.steps.size(), intrinsics, e.baseline, e.rotation_deg);
  EXPECT_LT(intrinsics, 0.1);
  EXPECT_LT(std::fabs(e.baseline), 0.025);  // mm of a 100 mm baseline: half the 0.05 % aimed at
  EXPECT_LT(e.rotation_deg, 0.005);
}

TEST(PreciseCalibration, UnusableArgumentsAreReportedNotThrown) {
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors(2);
  std::vector<std::vector<std::vector<cv::Point2f>>> points(2);
  points[0].resize(1);
  std::vector<std::vector<cv::Mat>> images(2);
  PreciseCalibrationOptions options;
  options.refinement.circle_radius = 12.0;

  StereoCalib unset;
  EXPECT_EQ(calibrate_stereo_precisely(unset, images, points, cams, errors, options).code, 3);
  SynthBoard board = synth_board(BoardFamily::kPellux, 5.0, BoardGrid::calibration());
  StereoCalib calib(board_type(BoardFamily::kPellux));
  CameraCalibParams cp;
  ASSERT_TRUE(calib.set_parameters(cp, board.board, board.marker, board.pre));
  PreciseCalibration r = calibrate_stereo_precisely(calib, images, points, cams, errors, options);
  EXPECT_EQ(r.code, 3);  // one list of points without its image
  EXPECT_FALSE(r.message.empty());
  images[0].emplace_back(4, 4, CV_8UC3);
  points[0][0].assign(88, cv::Point2f(1, 1));
  r = calibrate_stereo_precisely(calib, images, points, cams, errors, options);
  EXPECT_EQ(r.code, 3);  // not a grey image
  options.remeasure = false;
  options.refinement.circle_radius = 0.0;
  EXPECT_EQ(calibrate_stereo_precisely(calib, images, points, cams, errors, options).code, 3);
}

}  // namespace
}  // namespace sl3d
