#include "depth.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/codecs/image_codecs.h>

#include "errors.h"

namespace sl3d {

namespace {

constexpr float kNoPoint = std::numeric_limits<float>::quiet_NaN();

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
  cv::Mat depth(m.height, m.width, CV_32F, cv::Scalar(kNoPoint));
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

cv::Mat xyz_map(const Measurement& m) {
  cv::Mat xyz(m.height, m.width, CV_32FC3, cv::Scalar::all(kNoPoint));
  cv::Vec3f* out = xyz.ptr<cv::Vec3f>();
  for (std::size_t pixel = 0; pixel < m.range_grid.size(); ++pixel) {
    const int index = m.range_grid[pixel];
    if (index < 0) continue;
    const PointCloudElement& p = m.points[index];
    out[pixel] = cv::Vec3f(p.x, p.y, p.z);
  }
  return xyz;
}

std::vector<unsigned char> encode_float_tiff(const cv::Mat& image,
                                             const std::string& path_for_errors) {
  // Left to itself OpenCV stores three float channels as LogLuv, which is
  // lossy and loses negative values; uncompressed keeps every bit.
  const std::vector<int> uncompressed = {cv::IMWRITE_TIFF_COMPRESSION, 1};
  std::vector<unsigned char> bytes;
  if (!detail::encode_image(".tiff", image, bytes, uncompressed) || bytes.empty()) {
    throw file_error(path_for_errors, "cannot encode the image as TIFF");
  }
  return bytes;
}

DepthRange percentile_range(const cv::Mat& depth) {
  std::vector<double> values = finite_values(depth);
  if (values.empty()) return {};
  DepthRange range;
  range.near = percentile(values, 0.02);
  range.far = percentile(values, 0.98);
  return range;
}

namespace {

const cv::Scalar kLabelColour(255, 255, 255);
constexpr int kFont = cv::FONT_HERSHEY_SIMPLEX;

std::string depth_label(double depth, const DepthRange& range) {
  char text[32];
  std::snprintf(text, sizeof text, range.far - range.near >= 20.0 ? "%.0f" : "%.1f", depth);
  return text;
}

// The colours of `levels` (CV_8U) through the preview's colour map.
cv::Mat coloured(const cv::Mat& levels) {
  cv::Mat out;
  cv::applyColorMap(levels, out, cv::COLORMAP_JET);
  return out;
}

// A panel as high as the preview: a bar from far (top) to near (bottom)
// with five depth labels and the unit.
cv::Mat colour_bar(int height, const DepthRange& range) {
  const double scale = std::clamp(height / 600.0, 0.35, 1.5);
  const int thickness = std::max(1, int(std::lround(scale * 1.5)));
  const int margin = int(std::lround(20 * scale)), bar_width = int(std::lround(24 * scale));
  const int text_width = cv::getTextSize("00000.0", kFont, scale * 0.6, thickness, nullptr).width;
  cv::Mat panel(height, 2 * margin + bar_width + text_width + margin / 2, CV_8UC3,
                cv::Scalar::all(0));
  const int top = margin, bottom = std::max(top + 1, height - margin);
  cv::Mat ramp(bottom - top, 1, CV_8U);
  for (int r = 0; r < ramp.rows; ++r) {
    ramp.at<uchar>(r) = cv::saturate_cast<uchar>(255.0 * (ramp.rows - 1 - r) / std::max(1, ramp.rows - 1));
  }
  cv::Mat bar;
  cv::resize(coloured(ramp), bar, cv::Size(bar_width, ramp.rows), 0, 0, cv::INTER_NEAREST);
  bar.copyTo(panel(cv::Rect(margin, top, bar_width, ramp.rows)));
  for (int k = 0; k <= 4; ++k) {
    const double depth = range.far - k * (range.far - range.near) / 4.0;
    const int y = top + int(std::lround(k * (ramp.rows - 1) / 4.0));
    cv::line(panel, {margin + bar_width, y}, {margin + bar_width + margin / 3, y}, kLabelColour,
             thickness);
    cv::putText(panel, depth_label(depth, range), {margin + bar_width + margin / 2, y + int(6 * scale)},
                kFont, scale * 0.6, kLabelColour, thickness, cv::LINE_AA);
  }
  cv::putText(panel, "mm", {margin, std::max(int(14 * scale), top - int(5 * scale))}, kFont,
              scale * 0.5, kLabelColour, thickness, cv::LINE_AA);
  return panel;
}

}  // namespace

cv::Mat depth_preview(const cv::Mat& depth, const DepthRange& requested) {
  // A flat scene (empty range) shows mid-scale, half a unit either side.
  const DepthRange range = requested.empty() ? DepthRange{requested.near - 0.5, requested.near + 0.5}
                                             : requested;
  const double scale = 255.0 / (range.far - range.near);
  cv::Mat levels;
  depth.convertTo(levels, CV_8U, scale, -range.near * scale);  // saturates outside the range
  cv::Mat image(depth.size(), CV_8UC3, cv::Scalar::all(0));
  coloured(levels).copyTo(image, depth == depth);  // false exactly for NaN
  cv::Mat preview;
  cv::hconcat(image, colour_bar(depth.rows, range), preview);
  return preview;
}

ErrorStats error_stats(std::vector<double>& abs_errors_mm) {
  ErrorStats stats;
  const std::size_t n = abs_errors_mm.size();
  stats.compared = static_cast<int>(n);
  if (n == 0) return stats;
  double sum_sq = 0.0;
  for (double error : abs_errors_mm) {
    sum_sq += error * error;
    stats.above_5mm += error > 5.0;
    stats.max = std::max(stats.max, error);
  }
  stats.rms = std::sqrt(sum_sq / n);
  std::nth_element(abs_errors_mm.begin(), abs_errors_mm.begin() + n * 95 / 100,
                   abs_errors_mm.end());
  stats.p95 = abs_errors_mm[n * 95 / 100];
  return stats;
}

}  // namespace sl3d
