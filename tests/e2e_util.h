#ifndef SL3D_TESTS_E2E_UTIL_H_
#define SL3D_TESTS_E2E_UTIL_H_

// Helpers shared by the end-to-end tests: run a generator on rendered
// captures through the public interface and compare with the truth.

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace testing {

struct DepthError {
  int compared = 0;  // points with a finite true depth
  double rms = 0.0;
  double p95 = 0.0;
  int gross = 0;  // |error| > 10 mm
};

// Compares each point's z with the true depth of the pixel that made it.
inline DepthError depth_error(const iPointCloudGenerator& gen, const cv::Mat& true_depth) {
  const PointCloudElement* points = gen.get_pointcloud_ptr();
  const int* grid = gen.get_rangegrid();
  std::vector<double> errors;
  for (int i = 0; i < true_depth.rows * true_depth.cols; ++i) {
    if (grid[i] < 0) continue;
    const double z = true_depth.at<double>(i / true_depth.cols, i % true_depth.cols);
    if (!std::isfinite(z)) continue;
    errors.push_back(std::fabs(points[grid[i]].z - z));
  }
  DepthError e;
  e.compared = static_cast<int>(errors.size());
  if (errors.empty()) return e;
  double sq = 0.0;
  for (double v : errors) {
    sq += v * v;
    if (v > 10.0) ++e.gross;
  }
  e.rms = std::sqrt(sq / errors.size());
  std::nth_element(errors.begin(), errors.begin() + errors.size() * 95 / 100, errors.end());
  e.p95 = errors[errors.size() * 95 / 100];
  return e;
}

// Loads the calibration directory `dir`, rectifies copies of the raw frames
// of both cameras, hands them in and runs exec. The caller destroys it.
inline PhaseShift* measure_raw_phase_shift(const std::string& dir,
                                           const std::vector<cv::Mat> (&frames)[2]) {
  const cv::Size size = frames[0][0].size();
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  gen->verbose = 0;
  EXPECT_TRUE(gen->init(size.width, size.height));
  EXPECT_TRUE(gen->set_camera_params(dir.c_str()));
  for (int c = 0; c < 2; ++c) {
    for (int i = 0; i < 13; ++i) {
      cv::Mat frame = frames[c][i].clone();
      gen->rectify(frame.data, frame.cols, frame.rows, frame.step, c);
      gen->setpict(frame.data, frame.step, c, i);
    }
  }
  gen->exec();
  return gen;
}

// Points of a calibration come out in its left rectified camera's frame;
// camera 0 of the tests' rigs sits at the world origin, so the rotation
// alone takes them to the world.
inline cv::Matx33d world_from_rect(const std::string& dir,
                                   const std::array<SimCamera, 2>& cameras) {
  cv::Matx33d rotation = cv::Matx33d::eye();
  cv::Vec3d offset(0, 0, 0);
  EXPECT_TRUE(sl3d::world_from_rect(dir, cameras, rotation, offset));
  EXPECT_LT(cv::norm(offset), 1e-9);
  return rotation;
}

struct SurfaceError {
  int points = 0;
  double median = 0.0;
  double p95 = 0.0;
};

// Distances of the generator's points, taken to the world by
// world_from_rect, to the nearest true surface.
inline SurfaceError surface_error(const iPointCloudGenerator& gen, const VirtualSensor& sensor,
                                  const cv::Matx33d& world_from_rect) {
  std::vector<double> d;
  const PointCloudElement* p = gen.get_pointcloud_ptr();
  for (int i = 0; i < gen.get_pointcloud_cnt(); ++i) {
    d.push_back(sensor.distance_to_scene(world_from_rect * cv::Vec3d(p[i].x, p[i].y, p[i].z)));
  }
  SurfaceError e;
  e.points = static_cast<int>(d.size());
  if (d.empty()) return e;
  std::sort(d.begin(), d.end());
  e.median = d[d.size() / 2];
  e.p95 = d[d.size() * 95 / 100];
  return e;
}

}  // namespace testing
}  // namespace sl3d

#endif  // SL3D_TESTS_E2E_UTIL_H_
