#ifndef SL3D_TESTS_E2E_UTIL_H_
#define SL3D_TESTS_E2E_UTIL_H_

// Helpers shared by the end-to-end tests: run a generator on rendered
// captures through the public interface and compare with the truth.

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/pointcloud/PointCloudGenerator.h>
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

// Hands the 13 frames of both cameras to a phase-shift generator.
inline void hand_in_phase_shift(iPointCloudGenerator& gen, const std::vector<cv::Mat>& cam0,
                                const std::vector<cv::Mat>& cam1) {
  for (int i = 0; i < 13; ++i) {
    gen.setpict(cam0[i].data, cam0[i].step, 0, i);
    gen.setpict(cam1[i].data, cam1[i].step, 1, i);
  }
}

}  // namespace testing
}  // namespace sl3d

#endif  // SL3D_TESTS_E2E_UTIL_H_
