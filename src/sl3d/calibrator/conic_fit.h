#ifndef SL3D_CALIBRATOR_CONIC_FIT_H_
#define SL3D_CALIBRATOR_CONIC_FIT_H_

// Least-squares ellipse through outline points, shared by the marker-centre
// measurement and the model of where that measurement lands. Internal.

#include <vector>

#include <opencv2/core.hpp>

namespace sl3d {
namespace detail {

// The conic a x^2 + b xy + c y^2 + d x + e y + f = 0 in coordinates
// (p - origin) / scale, which keeps the normal equations well conditioned.
struct Conic {
  double a = 0, b = 0, c = 0, d = 0, e = 0, f = 0;
  cv::Point2d origin;
  double scale = 1.0;

  bool is_ellipse() const { return 4.0 * a * c - b * b > 0.0; }
  // Where the gradient vanishes; the ellipse's centre, in pixels.
  cv::Point2d centre() const;
  // Sampson's first-order distance of p from the curve, in pixels.
  double distance(const cv::Point2d& p) const;
};

// Algebraic fit under a + c = 1 (invariant to rotating and moving the
// points). Without noise an ellipse's points give that ellipse exactly; the
// centre of a fit to a whole outline is unbiased to first order in the
// noise. False when fewer than 5 points or the system is singular.
bool fit_conic(const std::vector<cv::Point2d>& points, Conic& conic);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_CONIC_FIT_H_
