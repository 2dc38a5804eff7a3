#ifndef SL3D_CLI_DEPTH_H_
#define SL3D_CLI_DEPTH_H_

// Depth on camera 0's pixel grid: preview images, coverage and the error
// against a known true depth.

#include <vector>

#include <opencv2/core.hpp>

#include "measure.h"

namespace sl3d {

// CV_32F, the z of the pixel's point; NaN where the pixel has none.
cv::Mat depth_map(const Measurement& m);

// Share of pixels that produced a point, in percent.
double coverage_percent(const Measurement& m);

// CV_8UC3 colour-coded depth: near blue, far red, scaled between the 2nd and
// 98th percentile of the valid depths; pixels without depth are black.
cv::Mat depth_preview(const cv::Mat& depth);

struct ErrorStats {
  int compared = 0;      // points with a known true position
  double rms_mm = 0.0;
  double p95_abs_mm = 0.0;
  int gross = 0;         // |error| > 10 mm
};

// Statistics of the points' absolute errors (reordered on the way).
ErrorStats error_stats(std::vector<double>& abs_errors_mm);

}  // namespace sl3d

#endif  // SL3D_CLI_DEPTH_H_
