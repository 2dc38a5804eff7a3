#ifndef SL3D_CLI_DEPTH_H_
#define SL3D_CLI_DEPTH_H_

// Depth on camera 0's pixel grid: preview images, float exports, coverage
// and the error against a known true depth.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "measure.h"

namespace sl3d {

// CV_32F, the z of the pixel's point; NaN where the pixel has none.
cv::Mat depth_map(const Measurement& m);

// CV_32FC3, the x, y and z of the pixel's point (channels 0, 1, 2); NaN in
// all three where the pixel has none.
cv::Mat xyz_map(const Measurement& m);

// A 32-bit float image (1 or 3 channels) as the bytes of an uncompressed
// TIFF file from OpenCV's writer; cv::imread with IMREAD_UNCHANGED gives
// the same values back. Three channels are stored in RGB order, so other
// TIFF readers see them as channels 2, 1, 0.
std::vector<unsigned char> encode_float_tiff(const cv::Mat& image,
                                             const std::string& path_for_errors);

// Share of pixels that produced a point, in percent.
double coverage_percent(const Measurement& m);

// The depths a preview's colours span.
struct DepthRange {
  double near = 0.0;
  double far = 0.0;
  bool empty() const { return !(far > near); }
};

// The 2nd to 98th percentile of the valid depths (empty when there are
// none, or all are alike).
DepthRange percentile_range(const cv::Mat& depth);

// CV_8UC3 colour-coded depth: near blue, far red over `range` (depths
// beyond it take the end colours; an empty range shows mid-scale), pixels
// without depth black; on the right a colour bar labelled with its depths
// in the points' unit.
cv::Mat depth_preview(const cv::Mat& depth, const DepthRange& range);

// Distances of points to the truth, millimetres.
struct ErrorStats {
  int compared = 0;  // points with a known true position
  double rms = 0.0;
  double p95 = 0.0;
  double max = 0.0;
  int above_5mm = 0;
};

// Statistics of the points' absolute errors (reordered on the way).
ErrorStats error_stats(std::vector<double>& abs_errors_mm);

}  // namespace sl3d

#endif  // SL3D_CLI_DEPTH_H_
