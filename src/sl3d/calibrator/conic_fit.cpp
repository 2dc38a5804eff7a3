#include <sl3d/calibrator/conic_fit.h>

#include <cmath>
#include <limits>

namespace sl3d {
namespace detail {

namespace {

cv::Point2d normalised(const Conic& q, const cv::Point2d& p) {
  return (p - q.origin) * (1.0 / q.scale);
}

}  // namespace

cv::Point2d Conic::centre() const {
  const double det = 4.0 * a * c - b * b;
  if (det == 0.0) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    return cv::Point2d(nan, nan);
  }
  // Solve [2a b; b 2c] u = -(d, e).
  const cv::Point2d u((-2.0 * c * d + b * e) / det, (b * d - 2.0 * a * e) / det);
  return origin + u * scale;
}

double Conic::distance(const cv::Point2d& p) const {
  const cv::Point2d u = normalised(*this, p);
  const double value = a * u.x * u.x + b * u.x * u.y + c * u.y * u.y + d * u.x + e * u.y + f;
  const double gx = 2.0 * a * u.x + b * u.y + d, gy = b * u.x + 2.0 * c * u.y + e;
  const double gradient = std::hypot(gx, gy);
  return gradient > 0.0 ? value / gradient * scale : std::numeric_limits<double>::infinity();
}

bool fit_conic(const std::vector<cv::Point2d>& points, Conic& conic) {
  if (points.size() < 5) return false;
  cv::Point2d mean(0, 0);
  for (const cv::Point2d& p : points) mean += p;
  mean *= 1.0 / double(points.size());
  double spread = 0.0;
  for (const cv::Point2d& p : points) spread += (p - mean).dot(p - mean);
  spread = std::sqrt(spread / double(points.size()));
  if (!(spread > 0.0)) return false;
  Conic q;
  q.origin = mean;
  q.scale = spread;
  // With a = 1 - c: c (y^2 - x^2) + b xy + d x + e y + f = -x^2.
  cv::Matx<double, 5, 5> normal = cv::Matx<double, 5, 5>::zeros();
  cv::Vec<double, 5> rhs = cv::Vec<double, 5>::all(0.0);
  for (const cv::Point2d& p : points) {
    const cv::Point2d u = normalised(q, p);
    const cv::Vec<double, 5> row(u.y * u.y - u.x * u.x, u.x * u.y, u.x, u.y, 1.0);
    normal += row * row.t();
    rhs += row * (-u.x * u.x);
  }
  cv::Vec<double, 5> x;
  if (!cv::solve(normal, rhs, x, cv::DECOMP_CHOLESKY)) return false;
  q.c = x[0];
  q.a = 1.0 - x[0];
  q.b = x[1];
  q.d = x[2];
  q.e = x[3];
  q.f = x[4];
  conic = q;
  return true;
}

}  // namespace detail
}  // namespace sl3d
