#include <sl3d/calibboard/CircleMarkerSearcher.h>

#include <cfloat>
#include <cmath>
#include <iostream>

#include <opencv2/highgui.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/codecs/image_codecs.h>

namespace {

constexpr double kFitTolerancePx = 1.5;

// Contour points as the rows of an N x 2 double matrix.
cv::Mat points_as_rows(const std::vector<cv::Point>& contour) {
  cv::Mat rows(static_cast<int>(contour.size()), 2, CV_64F);
  for (int i = 0; i < rows.rows; ++i) {
    rows.at<double>(i, 0) = contour[i].x;
    rows.at<double>(i, 1) = contour[i].y;
  }
  return rows;
}

double roundness(const RotatedEllipse& e) {
  return e.width > e.height ? e.height / e.width : e.width / e.height;
}

std::int32_t circumference_points(double radius) {
  return sl3d::detail::truncate_to_int32(2.0 * CV_PI * radius + 0.5);
}

}  // namespace

RotatedEllipse::RotatedEllipse() : axes(cv::Mat::zeros(2, 2, CV_64F)) {}

double RotatedEllipse::fit(std::vector<cv::Point>& contour, double tolerance) {
  if (contour.size() < 4) return 0.0;
  const cv::Mat data = points_as_rows(contour);
  cv::PCA pca(data, cv::noArray(), cv::PCA::DATA_AS_ROW, 2);
  axes = pca.eigenvectors;
  center = cv::Point2d(pca.mean.at<double>(0, 0), pca.mean.at<double>(0, 1));
  angle = std::atan2(axes.at<double>(0, 1), axes.at<double>(0, 0)) * 180.0 / CV_PI;

  const cv::Mat uv = pca.project(data);
  double min_u = DBL_MAX, max_u = -1.0, min_v = DBL_MAX, max_v = -1.0;
  for (int i = 0; i < uv.rows; ++i) {
    const double u = uv.at<double>(i, 0), v = uv.at<double>(i, 1);
    min_u = std::min(min_u, u);
    max_u = std::max(max_u, u);
    min_v = std::min(min_v, v);
    max_v = std::max(max_v, v);
  }
  width = max_u - min_u;
  height = max_v - min_v;
  a = width / 2.0;
  b = height / 2.0;

  const double ai2 = (a - tolerance) * (a - tolerance), bi2 = (b - tolerance) * (b - tolerance);
  const double ao2 = (a + tolerance) * (a + tolerance), bo2 = (b + tolerance) * (b + tolerance);
  if (ai2 == 0.0 || bi2 == 0.0 || ao2 == 0.0 || bo2 == 0.0) return 0.0;
  int in_ring = 0;
  for (int i = 0; i < uv.rows; ++i) {
    const double u2 = uv.at<double>(i, 0) * uv.at<double>(i, 0);
    const double v2 = uv.at<double>(i, 1) * uv.at<double>(i, 1);
    const bool outside_inner = u2 / ai2 + v2 / bi2 - 1.0 >= 0.0;
    const bool inside_outer = u2 / ao2 + v2 / bo2 - 1.0 <= 0.0;
    if (outside_inner && inside_outer) ++in_ring;
  }
  return static_cast<double>(in_ring) / static_cast<double>(contour.size());
}

double RotatedEllipse::getRadius(cv::Vec2d direction) {
  const cv::Mat d = axes * cv::Mat(direction);
  const double p = d.at<double>(0), q = d.at<double>(1);
  if (p == 0.0) return b;
  const double m = q / p;
  const double x = a * b / std::sqrt(a * a * m * m + b * b);
  const double y = m * x;
  return std::sqrt(x * x + y * y);
}

CircleMarkerSearcher::CircleMarkerSearcher() {
  CircleMarkerParams defaults;
  init_searcher(defaults);
}

void CircleMarkerSearcher::init_searcher(CircleMarkerParams& p) {
  fitscore = p.fitscore;
  n_minimum = p.n_minimum;
  image_width = p.image_width;
  image_height = p.image_height;
  debug_show_scale = p.debug_show_scale;
  max_radius = p.max_radius;
  min_radius = p.min_radius;
  max_length = circumference_points(max_radius);
  min_length = circumference_points(min_radius);
}

bool CircleMarkerSearcher::search(cv::Mat& binary) {
  // OpenCV refuses an empty image; it simply has no contours.
  std::vector<std::vector<cv::Point>> all;
  if (!binary.empty()) cv::findContours(binary, all, cv::RETR_LIST, cv::CHAIN_APPROX_NONE);

  std::vector<int> flags(all.size(), 1);
  if (check_length(flags, all) < n_minimum) return false;
  std::vector<RotatedEllipse> fitted(all.size());
  if (fit_ellipse(all, flags, fitted) < n_minimum) return false;
  if (check_diameter_rate(fitted, flags) < n_minimum) return false;

  contours.clear();
  ellipses.clear();
  for (size_t i = 0; i < all.size(); ++i) {
    if (flags[i] == 0) continue;
    contours.push_back(all[i]);
    ellipses.push_back(fitted[i]);
  }

  if (debug_show_scale != 0.0) {
    cv::Mat picture;
    cv::cvtColor(binary, picture, cv::COLOR_GRAY2BGR);
    for (const RotatedEllipse& e : ellipses) {
      const cv::RotatedRect box(cv::Point2f(e.center), cv::Size2f(e.width, e.height), e.angle);
      cv::ellipse(picture, box, cv::Scalar(0, 255, 0), 1, 8);
    }
    std::cerr << "CircleMarkerSearcher show" << std::endl;
    debug_show(picture, "debug", false);
  }
  return true;
}

int CircleMarkerSearcher::check_length(std::vector<int>& flags,
                                       std::vector<std::vector<cv::Point>>& all) {
  int kept = 0;
  for (size_t i = 0; i < all.size(); ++i) {
    const long n = static_cast<long>(all[i].size());
    if (n < min_length || n > max_length)
      flags[i] = 0;
    else if (flags[i] != 0)
      ++kept;
  }
  return kept;
}

int CircleMarkerSearcher::fit_ellipse(std::vector<std::vector<cv::Point>>& all,
                                      std::vector<int>& flags,
                                      std::vector<RotatedEllipse>& fitted) {
  int kept = 0;
  for (size_t i = 0; i < all.size(); ++i) {
    if (flags[i] == 0) continue;
    RotatedEllipse& e = fitted[i];
    const double score = e.fit(all[i], kFitTolerancePx);
    // The full spreads are compared with the radius limits on purpose.
    const bool plausible = score >= fitscore && e.width >= min_radius &&
                           e.width <= max_radius && e.height >= min_radius &&
                           e.height <= max_radius;
    if (plausible)
      ++kept;
    else
      flags[i] = 0;
  }
  return kept;
}

int CircleMarkerSearcher::check_diameter_rate(std::vector<RotatedEllipse>& fitted,
                                              std::vector<int>& flags) {
  // Sums are taken relative to the first ratio so that equal ratios have
  // exactly that mean: with s = 0 none of them may fall outside.
  double first = 0.0, sum = 0.0, sum_sq = 0.0;
  int n = 0;
  for (size_t i = 0; i < fitted.size(); ++i) {
    if (flags[i] == 0) continue;
    const double r = roundness(fitted[i]);
    if (n == 0) first = r;
    sum += r - first;
    sum_sq += r * r;
    ++n;
  }
  const double mean = first + sum / n;
  const double sd = std::sqrt(sum_sq / n - mean * mean);  // population form

  int kept = 0;
  for (size_t i = 0; i < fitted.size(); ++i) {
    if (flags[i] == 0) continue;
    const double r = roundness(fitted[i]);
    if (r < mean - 3.0 * sd || r > mean + 3.0 * sd)
      flags[i] = 0;
    else
      ++kept;
  }
  return kept;
}

void CircleMarkerSearcher::debug_show(cv::Mat& image, std::string name, bool save) {
  if (debug_show_scale == 0.0) return;
  const cv::Size scaled(static_cast<int>(image.cols * debug_show_scale),
                        static_cast<int>(image.rows * debug_show_scale));
  cv::Mat shown;
  cv::resize(image, shown, scaled, 0.0, 0.0, cv::INTER_LINEAR);
  cv::imshow(name, shown);
  if (save) sl3d::detail::write_image(name + (image.channels() > 1 ? ".ppm" : ".pgm"), image);
  cv::waitKey(0);
}
