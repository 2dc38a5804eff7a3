// End to end from raw captures: the virtual sensor renders distorted,
// unrectified cameras and writes their calibration; the generator loads the
// directory, rectifies every capture, measures, and triangulates in each of
// its three modes. Every point is compared with the scene's true surfaces.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include <unistd.h>

#include "e2e_util.h"

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;

SimRig rig_640() {
  SimRig rig = SimRig::scaled(640, 512);
  return rig;
}

class RawCaptures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new fs::path(fs::temp_directory_path() / ("sl3d_raw_" + std::to_string(::getpid())));
    fs::create_directories(*dir_);
    sensor_ = new VirtualSensor(rig_640());
    cameras_ = default_raw_cameras(rig_640());
    ASSERT_TRUE(write_calibration_directory(cameras_, dir_->string()));
    for (int c = 0; c < 2; ++c) frames_[c] = sensor_->render_phase_shift(cameras_[c]);
  }
  static void TearDownTestSuite() {
    fs::remove_all(*dir_);
    delete dir_;
    delete sensor_;
  }

  PhaseShift* measure(const std::string& dir) {
    return testing::measure_raw_phase_shift(dir, frames_);
  }

  cv::Matx33d world_from_rect() const {
    return testing::world_from_rect(dir_->string(), cameras_);
  }

  static fs::path* dir_;
  static VirtualSensor* sensor_;
  static std::array<SimCamera, 2> cameras_;
  static std::vector<cv::Mat> frames_[2];
};

fs::path* RawCaptures::dir_ = nullptr;
VirtualSensor* RawCaptures::sensor_ = nullptr;
std::array<SimCamera, 2> RawCaptures::cameras_;
std::vector<cv::Mat> RawCaptures::frames_[2];

TEST_F(RawCaptures, AllThreeModesLandOnTheTrueSurfaces) {
  PhaseShift* gen = measure(dir_->string());
  const cv::Matx33d to_world = world_from_rect();
  testing::SurfaceError errors[3];
  std::vector<PointCloudElement> by_q;
  for (int mode = 0; mode < 3; ++mode) {
    gen->genPC(mode);
    errors[mode] = testing::surface_error(*gen, *sensor_, to_world);
    const PointCloudElement* p = gen->get_pointcloud_ptr();
    if (mode == 0) by_q.assign(p, p + gen->get_pointcloud_cnt());
    // For a rectified pair the three triangulations are the same geometry.
    double largest_gap = 0.0;
    for (int i = 0; i < std::min<int>(gen->get_pointcloud_cnt(), by_q.size()); ++i) {
      largest_gap = std::max(largest_gap, cv::norm(cv::Vec3d(p[i].x - by_q[i].x, p[i].y - by_q[i].y,
                                                             p[i].z - by_q[i].z)));
    }
    EXPECT_LT(largest_gap, 0.01) << "mode " << mode;
    std::printf("mode %d: %d points, median %.3f mm, p95 %.3f mm from the surface\n", mode,
                errors[mode].points, errors[mode].median, errors[mode].p95);
  }
  gen->destroy();
  for (const testing::SurfaceError& e : errors) {
    EXPECT_GT(e.points, 640 * 512 / 2);
    // 0.1 px of disparity is about 1.4 mm at this depth and size.
    EXPECT_LT(e.median, 0.6);
    EXPECT_LT(e.p95, 2.5);
  }
  // Q and least squares see the same records; rays may drop a few.
  EXPECT_EQ(errors[0].points, errors[2].points);
  EXPECT_LE(errors[1].points, errors[0].points);
}

TEST_F(RawCaptures, CameraFilesAloneGiveTheSameMeasurement) {
  const fs::path yaml_only = *dir_ / "yaml_only";
  fs::create_directories(yaml_only);
  for (const char* f : {"cam0_param.yaml", "cam1_param.yaml"}) fs::copy_file(*dir_ / f, yaml_only / f);
  PhaseShift* binary = measure(dir_->string());
  PhaseShift* yaml = measure(yaml_only.string());
  EXPECT_EQ(binary->genPC(0), yaml->genPC(0));
  EXPECT_EQ(binary->get_disparity_cnt(), yaml->get_disparity_cnt());
  binary->destroy();
  yaml->destroy();
}

}  // namespace
}  // namespace sl3d
