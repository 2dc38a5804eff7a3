// Phase-shift measurement end to end through the exported interface, against
// the virtual sensor's known scene: rectified captures handed in with the
// true Q (clean and under harsh light), and raw captures of distorted,
// unrectified cameras rectified through their calibration directory and
// triangulated in each of the three modes. Block matching is checked
// against the same truth by its own test and through the tool.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <unistd.h>

#include "e2e_util.h"

namespace sl3d {
namespace {

namespace fs = std::filesystem;

constexpr int kWidth = 640, kHeight = 512, kPixels = kWidth * kHeight;

// The default scene seen by a rig of kWidth x kHeight, built once.
const VirtualSensor& sensor() {
  static const VirtualSensor sensor(SimRig::scaled(kWidth, kHeight));
  return sensor;
}

// Measures rectified captures under `light` with the true Q.
testing::DepthError measure_rectified(const SimLight& light, int* points) {
  static const SimGroundTruth truth = sensor().ground_truth();
  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  EXPECT_TRUE(gen->init(kWidth, kHeight));
  EXPECT_TRUE(gen->set_camera_params(truth.q.data()));
  const std::vector<cv::Mat> frames[2] = {sensor().render_phase_shift(0, light),
                                          sensor().render_phase_shift(1, light)};
  for (int c = 0; c < 2; ++c)
    for (int i = 0; i < 13; ++i) gen->setpict(frames[c][i].data, frames[c][i].step, c, i);
  gen->exec();
  *points = gen->genPC(0);
  const testing::DepthError e = testing::depth_error(*gen, truth.depth);
  gen->destroy();
  return e;
}

TEST(PhaseShiftEndToEnd, MeasuresTheSceneWithinAboutOneMillimetre) {
  int points = 0;
  const testing::DepthError e = measure_rectified(SimLight(), &points);
  EXPECT_GT(points, kPixels * 6 / 10);
  EXPECT_EQ(e.compared, points);
  // 1 mm is about 0.07 px of disparity here. The gross errors are camera-0
  // pixels near the left border whose true match lies outside camera 1's
  // view: the nearest phase within the accepted difference is taken anyway.
  EXPECT_LT(e.p95, 2.5);
  EXPECT_LT(e.gross, points / 100);
}

TEST(PhaseShiftEndToEnd, SurvivesBlurNoiseAndLowContrast) {
  SimLight light;
  light.blur_sigma_px = 1.0;
  light.noise_sigma = 3.0;
  light.ambient = 60.0;
  light.projector_gain = 120.0;
  int points = 0;
  const testing::DepthError e = measure_rectified(light, &points);
  // Noise of 3 grey levels on a 120-level modulation: about 0.15 px of
  // disparity noise. A broken unwrap would show as many gross errors.
  EXPECT_GT(points, kPixels / 2);
  EXPECT_LT(e.p95, 10.0);
  EXPECT_LT(e.gross, points / 33);
}

// Raw captures of the default rig and its calibration directory, rendered
// once for the tests below.
class RawCaptures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fs::create_directories(dir());
    ASSERT_TRUE(write_calibration_directory(cameras(), dir()));
    for (int c = 0; c < 2; ++c) frames_[c] = sensor().render_phase_shift(cameras()[c]);
  }
  static void TearDownTestSuite() { fs::remove_all(dir()); }

  static const std::array<SimCamera, 2>& cameras() {
    static const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor().rig());
    return cameras;
  }
  static std::string dir() {
    return (fs::temp_directory_path() / ("sl3d_raw_" + std::to_string(::getpid()))).string();
  }
  static PhaseShift* measure(const std::string& dir) {
    return testing::measure_raw_phase_shift(dir, frames_);
  }

  static std::vector<cv::Mat> frames_[2];
};

std::vector<cv::Mat> RawCaptures::frames_[2];

TEST_F(RawCaptures, AllThreeModesLandOnTheTrueSurfaces) {
  PhaseShift* gen = measure(dir());
  const cv::Matx33d to_world = testing::world_from_rect(dir(), cameras());
  testing::SurfaceError errors[3];
  std::vector<PointCloudElement> by_q;
  for (int mode = 0; mode < 3; ++mode) {
    gen->genPC(mode);
    errors[mode] = testing::surface_error(*gen, sensor(), to_world);
    const PointCloudElement* p = gen->get_pointcloud_ptr();
    if (mode == 0) by_q.assign(p, p + gen->get_pointcloud_cnt());
    // For a rectified pair the three triangulations are the same geometry.
    double largest_gap = 0.0;
    for (int i = 0; i < std::min<int>(gen->get_pointcloud_cnt(), by_q.size()); ++i)
      largest_gap = std::max(largest_gap, double(cv::norm(cv::Vec3f(p[i].x - by_q[i].x,
                                                                    p[i].y - by_q[i].y,
                                                                    p[i].z - by_q[i].z))));
    EXPECT_LT(largest_gap, 0.01) << "mode " << mode;
  }
  gen->destroy();
  for (const testing::SurfaceError& e : errors) {
    EXPECT_GT(e.points, kPixels / 2);
    // 0.1 px of disparity is about 1.4 mm at this depth and size.
    EXPECT_LT(e.median, 0.6);
    EXPECT_LT(e.p95, 2.5);
  }
  // Q and least squares see the same records; rays may drop a few.
  EXPECT_EQ(errors[0].points, errors[2].points);
  EXPECT_LE(errors[1].points, errors[0].points);
}

TEST_F(RawCaptures, CameraFilesAloneGiveTheSameMeasurement) {
  const fs::path yaml_only = fs::path(dir()) / "yaml_only";
  fs::create_directories(yaml_only);
  for (const char* f : {"cam0_param.yaml", "cam1_param.yaml"})
    fs::copy_file(fs::path(dir()) / f, yaml_only / f);
  PhaseShift* binary = measure(dir());
  PhaseShift* yaml = measure(yaml_only.string());
  EXPECT_EQ(binary->genPC(0), yaml->genPC(0));
  EXPECT_EQ(binary->get_disparity_cnt(), yaml->get_disparity_cnt());
  binary->destroy();
  yaml->destroy();
}

}  // namespace
}  // namespace sl3d
