#include <sl3d/calibrator/marker_centres.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <exception>
#include <utility>

#include <sl3d/calibrator/conic_fit.h>

namespace sl3d {

namespace {

// Sampling steps along a ray, pixels: coarse for finding the edge, fine for
// measuring it.
constexpr double kCoarseStep = 0.5;
constexpr double kFineStep = 0.25;
// Half-width of the measuring window, pixels, and its share of the edge's
// distance from the centre (which keeps a ring's hole out of the window).
constexpr double kMaxHalfWindow = 3.0;
constexpr double kMinHalfWindow = 1.0;
constexpr double kHalfWindowShare = 0.25;
// Samples averaged for the grey level at each end of the window.
constexpr int kLevelSamples = 3;
// Grey levels marker and ground must differ by along a ray.
constexpr double kMinContrast = 10.0;
constexpr int kMinRays = 32, kMaxRays = 720;
// Grid steps shorter than this, pixels, nearly parallel or longer than the
// image are not trusted.
constexpr double kMinStepPx = 4.0;
constexpr double kMinStepSine = 0.2;
// Edge points farther from the ellipse than this many robust deviations
// (but at least kMinRejectPx) are dropped before fitting again.
constexpr double kRejectSigmas = 3.0;
// The median absolute deviation of normal errors times this is their sigma.
constexpr double kMadToSigma = 1.4826;
constexpr double kMinRejectPx = 0.05;
constexpr int kFitRounds = 3;

bool missing(const cv::Point2f& p) {
  return p.x == FLT_MAX || !std::isfinite(p.x) || !std::isfinite(p.y);
}

// Bilinear grey levels with the markers dark: light markers are read as
// 255 minus their grey.
class MarkerImage {
 public:
  MarkerImage(const cv::Mat& image, bool dark_markers) : image_(image), dark_(dark_markers) {}

  bool sample(const cv::Point2d& p, double& value) const {
    if (!(p.x >= 0.0 && p.y >= 0.0 && p.x <= image_.cols - 1 && p.y <= image_.rows - 1))
      return false;
    // The last row and column interpolate from the one before.
    const int x = std::min(int(p.x), std::max(0, image_.cols - 2));
    const int y = std::min(int(p.y), std::max(0, image_.rows - 2));
    const double fx = p.x - x, fy = p.y - y;
    const uchar* row0 = image_.ptr<uchar>(y);
    const uchar* row1 = image_.ptr<uchar>(std::min(y + 1, image_.rows - 1));
    const int x1 = std::min(x + 1, image_.cols - 1);
    const double top = row0[x] + fx * (row0[x1] - row0[x]);
    const double bottom = row1[x] + fx * (row1[x1] - row1[x]);
    const double v = top + fy * (bottom - top);
    value = dark_ ? v : 255.0 - v;
    return true;
  }

 private:
  const cv::Mat& image_;
  bool dark_;
};

// A ray from a marker's recognised centre towards the middle of the gap to
// its neighbours: origin + t * unit for t in [0, length].
struct Ray {
  cv::Point2d origin;
  cv::Point2d unit;
  double length = 0.0;
  cv::Point2d at(double t) const { return origin + unit * t; }
};

// The image vector of one grid step along each of the board's directions
// at marker k, from its neighbours (central differences where both exist).
bool grid_steps(const std::vector<cv::Point2f>& points, cv::Size grid, int k, double max_step,
                cv::Point2d steps[2]) {
  const int ny = grid.height;
  const int i = k / ny, j = k % ny;
  const cv::Point2d centre(points[k]);
  auto found = [&](int index) { return !missing(points[index]); };
  auto step = [&](bool has_before, int before, bool has_after, int after, cv::Point2d& out) {
    has_before = has_before && found(before);
    has_after = has_after && found(after);
    if (has_before && has_after) {
      out = (cv::Point2d(points[after]) - cv::Point2d(points[before])) * 0.5;
    } else if (has_after) {
      out = cv::Point2d(points[after]) - centre;
    } else if (has_before) {
      out = centre - cv::Point2d(points[before]);
    } else {
      return false;
    }
    return true;
  };
  if (!step(i > 0, k - ny, i + 1 < grid.width, k + ny, steps[0])) return false;
  if (!step(j > 0, k - 1, j + 1 < ny, k + 1, steps[1])) return false;
  const double a = std::hypot(steps[0].x, steps[0].y), b = std::hypot(steps[1].x, steps[1].y);
  const double cross = std::fabs(steps[0].x * steps[1].y - steps[0].y * steps[1].x);
  return a >= kMinStepPx && b >= kMinStepPx && a <= max_step && b <= max_step &&
         cross >= kMinStepSine * a * b;
}

// Roughly where the ray leaves the marker: going inwards from its end, the
// first fall from above to below the middle grey of the ray.
bool rough_edge(const MarkerImage& image, const Ray& ray, double& t_edge) {
  const int n = int(ray.length / kCoarseStep);
  if (n < 2) return false;
  std::vector<double> values(std::size_t(n) + 1);
  for (int i = 0; i <= n; ++i)
    if (!image.sample(ray.at(ray.length - i * kCoarseStep), values[i])) return false;
  const auto [lo, hi] = std::minmax_element(values.begin(), values.end());
  if (*hi - *lo < kMinContrast) return false;
  const double mid = 0.5 * (*hi + *lo);
  bool seen_ground = false;
  for (int i = 0; i <= n; ++i) {
    if (values[i] > mid) {
      seen_ground = true;
    } else if (seen_ground && values[i] < mid) {
      const double fraction = (values[i - 1] - mid) / (values[i - 1] - values[i]);
      t_edge = ray.length - (i - 1 + fraction) * kCoarseStep;
      return true;
    }
  }
  return false;
}

// The edge in the window t_rough +- half_width as the area of the step:
// t_inner + integral of (L - I) / (L - D), trapezoidal.
bool fine_edge(const MarkerImage& image, const Ray& ray, double t_rough, double half_width,
               double& t_edge) {
  const int n = std::max(2 * kLevelSamples, int(std::ceil(2.0 * half_width / kFineStep)));
  const double h = 2.0 * half_width / n;
  const double t_inner = t_rough - half_width;
  std::vector<double> values(std::size_t(n) + 1);
  for (int i = 0; i <= n; ++i)
    if (!image.sample(ray.at(t_inner + i * h), values[i])) return false;
  double dark = 0.0, ground = 0.0;
  for (int i = 0; i < kLevelSamples; ++i) {
    dark += values[i];
    ground += values[n - i];
  }
  dark /= kLevelSamples;
  ground /= kLevelSamples;
  if (ground - dark < kMinContrast) return false;
  double area = 0.0;
  for (int i = 0; i < n; ++i) area += 0.5 * (2.0 * ground - values[i] - values[i + 1]) * h;
  t_edge = t_inner + area / (ground - dark);
  return std::fabs(t_edge - t_rough) < half_width;
}

// The outer edge along each ray, in pixels.
std::vector<cv::Point2d> edge_points(const MarkerImage& image, const cv::Point2d& centre,
                                     const cv::Point2d steps[2], int rays) {
  std::vector<cv::Point2d> edges;
  edges.reserve(std::size_t(rays));
  for (int r = 0; r < rays; ++r) {
    const double angle = 2.0 * CV_PI * r / rays;
    const cv::Point2d reach = steps[0] * std::cos(angle) + steps[1] * std::sin(angle);
    const double length = std::hypot(reach.x, reach.y);
    const Ray ray{centre, reach * (1.0 / length), 0.5 * length};
    double t_rough = 0.0, t_edge = 0.0;
    if (!rough_edge(image, ray, t_rough)) continue;
    const double half_width = std::min({kMaxHalfWindow, kHalfWindowShare * t_rough,
                                        ray.length - t_rough});
    if (half_width < kMinHalfWindow) continue;
    if (fine_edge(image, ray, t_rough, half_width, t_edge)) edges.push_back(ray.at(t_edge));
  }
  return edges;
}

double median(std::vector<double> values) {
  const std::size_t mid = values.size() / 2;
  std::nth_element(values.begin(), values.begin() + long(mid), values.end());
  return values[mid];
}

double median_abs(std::vector<double> values) {
  for (double& v : values) v = std::fabs(v);
  return median(std::move(values));
}

// Fits an ellipse, drops edge points far from it and fits again. RMS
// distance of the kept points in `rms`.
bool robust_ellipse(std::vector<cv::Point2d> points, std::size_t min_points, detail::Conic& conic,
                    double& rms) {
  for (int round = 0; round < kFitRounds; ++round) {
    if (points.size() < min_points || !detail::fit_conic(points, conic) || !conic.is_ellipse())
      return false;
    std::vector<double> distances;
    distances.reserve(points.size());
    for (const cv::Point2d& p : points) distances.push_back(conic.distance(p));
    const double limit = std::max(kMinRejectPx, kRejectSigmas * kMadToSigma * median_abs(distances));
    std::vector<cv::Point2d> kept;
    double sum = 0.0;
    for (std::size_t i = 0; i < points.size(); ++i) {
      if (std::fabs(distances[i]) > limit) continue;
      kept.push_back(points[i]);
      sum += distances[i] * distances[i];
    }
    rms = kept.empty() ? 0.0 : std::sqrt(sum / double(kept.size()));
    if (kept.size() == points.size()) return true;
    points.swap(kept);
  }
  return points.size() >= min_points && detail::fit_conic(points, conic) && conic.is_ellipse();
}

int ray_count(const MarkerCentreOptions& options, const cv::Point2d steps[2]) {
  if (options.rays > 0) return std::min(options.rays, kMaxRays);
  // About one ray per pixel of a circle half a grid step in radius.
  const double cell = std::fabs(steps[0].x * steps[1].y - steps[0].y * steps[1].x);
  return std::clamp(int(std::lround(CV_PI * std::sqrt(cell))), kMinRays, kMaxRays);
}

// The ellipse centre of one marker; false when a test of the options fails.
bool measure_marker(const MarkerImage& image, const cv::Point2d& recognised,
                    const cv::Point2d steps[2], const MarkerCentreOptions& options,
                    cv::Point2d& centre, double& residual) {
  const int rays = ray_count(options, steps);
  const double share =
      std::isfinite(options.min_ray_share) ? std::clamp(options.min_ray_share, 0.0, 1.0) : 1.0;
  const std::size_t min_points = std::max<std::size_t>(5, std::size_t(std::ceil(share * rays)));
  const std::vector<cv::Point2d> edges = edge_points(image, recognised, steps, rays);
  detail::Conic conic;
  if (!robust_ellipse(edges, min_points, conic, residual)) return false;
  centre = conic.centre();
  if (!std::isfinite(centre.x) || !std::isfinite(centre.y)) return false;
  const double shift = std::hypot(centre.x - recognised.x, centre.y - recognised.y);
  return shift <= options.max_shift_px && residual <= options.max_residual_px;
}

// A marker's grid steps, when its neighbours give them.
struct Neighbourhood {
  bool usable = false;
  cv::Point2d steps[2];
};

std::vector<Neighbourhood> neighbourhoods(const std::vector<cv::Point2f>& points, cv::Size grid,
                                          cv::Size image) {
  const double max_step = std::max(image.width, image.height);
  std::vector<Neighbourhood> out(std::size_t(grid.area()));
  for (int k = 0; k < grid.area(); ++k)
    out[k].usable = !missing(points[k]) && grid_steps(points, grid, k, max_step, out[k].steps);
  return out;
}

// Whether the markers are darker than the board: a vote of the markers
// whose recognised centre (inside a plain disc; a ring's hole shows the
// ground and abstains) differs clearly from the ground midway between four
// markers. No vote at all means dark.
bool markers_are_dark(const cv::Mat& image, const std::vector<cv::Point2f>& points,
                      const std::vector<Neighbourhood>& around) {
  const MarkerImage grey(image, true);
  int dark = 0, light = 0;
  for (std::size_t k = 0; k < around.size(); ++k) {
    if (!around[k].usable) continue;
    const cv::Point2d centre(points[k]);
    const cv::Point2d* steps = around[k].steps;
    double inside = 0.0, value = 0.0;
    if (!grey.sample(centre, inside)) continue;
    std::vector<double> ground;
    for (const double sx : {-0.5, 0.5})
      for (const double sy : {-0.5, 0.5})
        if (grey.sample(centre + steps[0] * sx + steps[1] * sy, value)) ground.push_back(value);
    if (ground.size() < 3) continue;
    const double difference = median(ground) - inside;
    if (difference > kMinContrast) ++dark;
    if (difference < -kMinContrast) ++light;
  }
  return dark >= light;
}

std::string check_arguments(const cv::Mat& image, cv::Size grid,
                            const std::vector<cv::Point2f>& points) {
  if (image.empty() || image.type() != CV_8UC1) return "the image must be 8-bit grey";
  if (grid.width < 1 || grid.height < 1) return "the grid must have at least one circle";
  if (points.size() < std::size_t(grid.area())) return "fewer points than circles on the board";
  return std::string();
}

MarkerCentreReport measure(const cv::Mat& image, cv::Size grid, std::vector<cv::Point2f>& points,
                           const MarkerCentreOptions& options) {
  MarkerCentreReport report;
  report.message = check_arguments(image, grid, points);
  if (!report.message.empty()) return report;
  const std::vector<Neighbourhood> around = neighbourhoods(points, grid, image.size());
  report.dark_markers = markers_are_dark(image, points, around);
  const MarkerImage marker_image(image, report.dark_markers);
  std::vector<cv::Point2f> measured = points;
  double shift_sum = 0.0, residual_sum = 0.0;
  for (int k = 0; k < grid.area(); ++k) {
    if (missing(points[k])) continue;
    cv::Point2d centre;
    double residual = 0.0;
    if (!around[k].usable || !measure_marker(marker_image, cv::Point2d(points[k]),
                                             around[k].steps, options, centre, residual)) {
      ++report.unmeasured;
      if (!options.keep_unmeasured) measured[k] = cv::Point2f(FLT_MAX, FLT_MAX);
      continue;
    }
    const double shift = std::hypot(centre.x - points[k].x, centre.y - points[k].y);
    measured[k] = cv::Point2f(float(centre.x), float(centre.y));
    ++report.remeasured;
    shift_sum += shift;
    residual_sum += residual;
    report.max_shift_px = std::max(report.max_shift_px, shift);
  }
  if (report.remeasured > 0) {
    report.mean_shift_px = shift_sum / report.remeasured;
    report.mean_residual_px = residual_sum / report.remeasured;
  }
  points.swap(measured);
  report.ok = true;
  return report;
}

}  // namespace

MarkerCentreReport measure_marker_centres(const cv::Mat& image, cv::Size grid,
                                          std::vector<cv::Point2f>& points,
                                          const MarkerCentreOptions& options) {
  try {
    return measure(image, grid, points, options);
  } catch (const std::exception& e) {
    MarkerCentreReport failed;
    failed.message = e.what();
    return failed;
  }
}

}  // namespace sl3d
