#include "depth.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace sl3d {

namespace {

constexpr double kGrossErrorMm = 10.0;

// The value below which `fraction` of the values lie (values get reordered).
double percentile(std::vector<double>& values, double fraction) {
  const std::size_t k = std::min(values.size() - 1, static_cast<std::size_t>(fraction * values.size()));
  std::nth_element(values.begin(), values.begin() + k, values.end());
  return values[k];
}

std::vector<double> finite_values(const cv::Mat& depth) {
  std::vector<double> values;
  for (auto it = depth.begin<float>(); it != depth.end<float>(); ++it) {
    if (std::isfinite(*it)) values.push_back(*it);
  }
  return values;
}

}  // namespace

cv::Mat depth_map(const Measurement& m) {
  cv::Mat depth(m.height, m.width, CV_32F, cv::Scalar(std::numeric_limits<float>::quiet_NaN()));
  float* out = depth.ptr<float>();
  for (std::size_t pixel = 0; pixel < m.range_grid.size(); ++pixel) {
    const int index = m.range_grid[pixel];
    if (index >= 0) out[pixel] = m.points[index].z;
  }
  return depth;
}

double coverage_percent(const Measurement& m) {
  if (m.range_grid.empty()) return 0.0;
  const auto covered = std::count_if(m.range_grid.begin(), m.range_grid.end(),
                                     [](int index) { return index >= 0; });
  return 100.0 * static_cast<double>(covered) / static_cast<double>(m.range_grid.size());
}

cv::Mat depth_preview(const cv::Mat& depth) {
  cv::Mat preview(depth.size(), CV_8UC3, cv::Scalar::all(0));
  std::vector<double> values = finite_values(depth);
  if (values.empty()) return preview;
  const double near = percentile(values, 0.02);
  const double far = percentile(values, 0.98);
  // A flat scene still gets a mid-scale colour instead of a division by zero.
  const double scale = far > near ? 255.0 / (far - near) : 0.0;
  const double offset = far > near ? -near * scale : 128.0;

  cv::Mat levels;
  depth.convertTo(levels, CV_8U, scale, offset);  // saturates outside the range
  cv::Mat coloured;
  cv::applyColorMap(levels, coloured, cv::COLORMAP_JET);
  const cv::Mat valid = depth == depth;  // false exactly for NaN
  coloured.copyTo(preview, valid);
  return preview;
}

ErrorStats error_stats(std::vector<double>& abs_errors_mm) {
  ErrorStats stats;
  stats.compared = static_cast<int>(abs_errors_mm.size());
  if (abs_errors_mm.empty()) return stats;
  double sum_sq = 0.0;
  for (double error : abs_errors_mm) {
    sum_sq += error * error;
    if (error > kGrossErrorMm) ++stats.gross;
  }
  stats.rms_mm = std::sqrt(sum_sq / abs_errors_mm.size());
  stats.p95_abs_mm = percentile(abs_errors_mm, 0.95);
  return stats;
}

}  // namespace sl3d
