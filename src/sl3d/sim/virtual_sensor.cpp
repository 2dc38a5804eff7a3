#include <sl3d/sim/virtual_sensor.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/pointcloud/threads.h>
#include <sl3d/sim/sensor_effects.h>

namespace sl3d {

namespace {

constexpr int kUsableCentrePeriod = 61;  // middle of the usable periods
constexpr double kReferenceDepthMm = 1100.0;
constexpr int kFrames = 13;

double hash_to_unit(int x, int y, int z) {
  std::uint32_t h = static_cast<std::uint32_t>(x) * 73856093u ^
                    static_cast<std::uint32_t>(y) * 19349663u ^
                    static_cast<std::uint32_t>(z) * 83492791u;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return (h & 0xFFFFFF) / double(0xFFFFFF) * 2.0 - 1.0;
}

double smooth(double t) { return t * t * (3.0 - 2.0 * t); }

// Value noise in [-1, 1]: random values on an integer lattice, smoothly
// interpolated.
double value_noise(const cv::Vec3d& p) {
  const int ix = int(std::floor(p[0])), iy = int(std::floor(p[1])), iz = int(std::floor(p[2]));
  const double fx = smooth(p[0] - ix), fy = smooth(p[1] - iy), fz = smooth(p[2] - iz);
  double acc = 0.0;
  for (int dz = 0; dz <= 1; ++dz)
    for (int dy = 0; dy <= 1; ++dy)
      for (int dx = 0; dx <= 1; ++dx) {
        const double w = (dx ? fx : 1 - fx) * (dy ? fy : 1 - fy) * (dz ? fz : 1 - fz);
        acc += w * hash_to_unit(ix + dx, iy + dy, iz + dz);
      }
  return acc;
}

constexpr int kFirstFringeFrame = 9;

// Fringe contrast below 1 pulls the fringes towards mid-grey, as a projector
// with a weak black level or a dim fringe throw would.
double with_fringe_contrast(int frame, double pattern, double fringe_contrast) {
  if (frame < kFirstFringeFrame) return pattern;
  return 0.5 + fringe_contrast * (pattern - 0.5);
}

// Blur, sensor noise and quantisation of one rendered frame.
cv::Mat finish_frame(const cv::Mat& radiance, const SimLight& light, std::uint64_t seed) {
  return detail::blur_noise_quantise(radiance, light.blur_sigma_px, light.noise_sigma, seed);
}

}  // namespace

struct VirtualSensor::Hit {
  double t = std::numeric_limits<double>::infinity();
  cv::Vec3d point;
  cv::Vec3d normal;
};

SimRig SimRig::scaled(int width, int height) {
  SimRig rig;
  rig.focal_px = rig.focal_px * width / rig.width;
  rig.width = width;
  rig.height = height;
  return rig;
}

SimScene SimScene::default_scene() {
  SimScene scene;
  scene.planes.push_back({cv::Vec3d(0, 0, 1100), cv::Vec3d(0.15, -0.10, -1.0)});
  scene.spheres.push_back({cv::Vec3d(-60, 20, 900), 180.0});
  return scene;
}

namespace {

PhaseShiftPatternLayout projector_layout(const SimRig& rig) {
  PhaseShiftPatternLayout layout;
  if (!phase_shift_pattern_layout(rig.projector_width, rig.projector_height,
                                  rig.projector_period_px, layout)) {
    throw std::invalid_argument("virtual sensor: no phase-shift patterns for a " +
                                std::to_string(rig.projector_width) + "x" +
                                std::to_string(rig.projector_height) + " projector with period " +
                                std::to_string(rig.projector_period_px));
  }
  return layout;
}

void check_frames(const std::vector<cv::Mat>& frames, const PhaseShiftPatternLayout& layout) {
  bool fit = frames.size() == std::size_t(kFrames);
  for (const cv::Mat& f : frames) {
    fit = fit && f.type() == CV_8UC1 && f.cols == layout.width && f.rows == layout.height;
  }
  if (!fit) {
    throw std::invalid_argument("virtual sensor: projector frames must be 13 8-bit grey images of " +
                                std::to_string(layout.width) + "x" +
                                std::to_string(layout.height));
  }
}

}  // namespace

VirtualSensor::VirtualSensor(const SimRig& rig, const SimScene& scene)
    : VirtualSensor(rig, scene,
                    make_phase_shift_patterns(rig.projector_width, rig.projector_height,
                                              rig.projector_period_px)) {}

VirtualSensor::VirtualSensor(const SimRig& rig, const SimScene& scene,
                             std::vector<cv::Mat> projector_frames)
    : rig_(rig), scene_(scene), layout_(projector_layout(rig)),
      frames_(std::move(projector_frames)) {
  check_frames(frames_, layout_);
  projector_center_ = cv::Vec3d(rig.baseline_mm / 2.0, 0.0, 0.0);
  // About one period per 20 camera columns, at most 64 periods across the
  // view, so that the periods camera 0 sees stay inside 25..96.
  const double periods_in_view = std::clamp(rig.width / 20.0, 16.0, 64.0);
  projector_focal_px_ = periods_in_view * layout_.period * rig.focal_px / rig.width;
  // Camera 0's optical axis meets period 61 at the reference depth.
  projector_cx_ = layout_.period_begin(kUsableCentrePeriod) +
                  projector_focal_px_ * projector_center_[0] / kReferenceDepthMm;
  projector_cy_ = layout_.height / 2.0;
}

bool VirtualSensor::cast(const cv::Vec3d& origin, const cv::Vec3d& dir, Hit& hit) const {
  hit.t = std::numeric_limits<double>::infinity();
  for (const SimPlane& plane : scene_.planes) {
    const double denom = plane.normal.dot(dir);
    if (std::fabs(denom) < 1e-12) continue;
    const double t = plane.normal.dot(plane.point - origin) / denom;
    if (t > 1e-9 && t < hit.t) {
      hit.t = t;
      hit.point = origin + t * dir;
      hit.normal = cv::normalize(plane.normal);
    }
  }
  for (const SimSphere& sphere : scene_.spheres) {
    const cv::Vec3d oc = origin - sphere.center;
    const double a = dir.dot(dir);
    const double b = oc.dot(dir);
    const double c = oc.dot(oc) - sphere.radius * sphere.radius;
    const double disc = b * b - a * c;
    if (disc < 0.0) continue;
    const double root = std::sqrt(disc);
    double t = (-b - root) / a;
    if (t <= 1e-9) t = (-b + root) / a;
    if (t > 1e-9 && t < hit.t) {
      hit.t = t;
      hit.point = origin + t * dir;
      hit.normal = cv::normalize(hit.point - sphere.center);
    }
  }
  return std::isfinite(hit.t);
}

// Projector image coordinates of a point, continuous: pixel (c, r) covers
// [c, c + 1) x [r, r + 1).
cv::Point2d VirtualSensor::projector_pixel(const cv::Vec3d& point) const {
  const cv::Vec3d p = point - projector_center_;
  return cv::Point2d(projector_focal_px_ * p[0] / p[2] + projector_cx_,
                     projector_focal_px_ * p[1] / p[2] + projector_cy_);
}

int VirtualSensor::period_index_at(const cv::Vec3d& point) const {
  return layout_.period_index(projector_pixel(point).x);
}

double VirtualSensor::absolute_phase_at(const cv::Vec3d& point) const {
  return layout_.absolute_phase(projector_pixel(point).x);
}

bool VirtualSensor::lit_by_projector(const cv::Vec3d& point, const cv::Point2d& pixel) const {
  if (point[2] <= projector_center_[2] || pixel.x < 0.0 || pixel.y < 0.0 ||
      pixel.x >= layout_.width || pixel.y >= layout_.height) {
    return false;
  }
  const cv::Vec3d to_projector = projector_center_ - point;
  const double distance = cv::norm(to_projector);
  Hit blocker;
  const cv::Vec3d dir = to_projector / distance;
  return !(cast(point + 1e-6 * dir, dir, blocker) && blocker.t < distance - 1e-6);
}

// Every frame's value in [0, 1] at a projector pixel inside the image,
// bilinear between pixel centres and clamped at the image's edge.
void VirtualSensor::sample_frames(const cv::Point2d& pixel, double* values) const {
  const double x = pixel.x - 0.5, y = pixel.y - 0.5;
  const int x0 = int(std::floor(x)), y0 = int(std::floor(y));
  const double fx = x - x0, fy = y - y0;
  const int c0 = std::clamp(x0, 0, layout_.width - 1), c1 = std::clamp(x0 + 1, 0, layout_.width - 1);
  const int r0 = std::clamp(y0, 0, layout_.height - 1), r1 = std::clamp(y0 + 1, 0, layout_.height - 1);
  for (int f = 0; f < kFrames; ++f) {
    const uchar* top = frames_[f].ptr<uchar>(r0);
    const uchar* bottom = frames_[f].ptr<uchar>(r1);
    const double upper = top[c0] + fx * (top[c1] - top[c0]);
    const double lower = bottom[c0] + fx * (bottom[c1] - bottom[c0]);
    values[f] = (upper + fy * (lower - upper)) / 255.0;
  }
}

double VirtualSensor::albedo(const cv::Vec3d& point) const {
  const cv::Vec3d p = point / scene_.texture_cell_mm;
  const double n = 0.65 * value_noise(p) + 0.35 * value_noise(2.3 * p + cv::Vec3d(17, 5, 9));
  return 1.0 - scene_.texture_strength * 0.5 * (1.0 + std::clamp(n, -1.0, 1.0));
}

// Where a camera's sample rays start and, per image row, the world
// direction of each of its n x n samples per pixel (pixel after pixel).
struct VirtualSensor::RayCamera {
  cv::Size size;
  cv::Vec3d origin;
  std::function<void(int row, int n, std::vector<cv::Vec3d>& dirs)> row_rays;
};

namespace {

void sample_row(int width, int row, int n, std::vector<cv::Point2d>& samples) {
  samples.clear();
  for (int u = 0; u < width; ++u)
    for (int sy = 0; sy < n; ++sy)
      for (int sx = 0; sx < n; ++sx)
        samples.emplace_back(u + (sx + 0.5) / n - 0.5, row + (sy + 0.5) / n - 0.5);
}

std::uint64_t camera_seed(const SimLight& light, const cv::Vec3d& origin, int salt) {
  const auto mm = static_cast<std::int64_t>(std::llround(origin[0] * 7 + origin[1] * 13 + origin[2] * 17));
  return light.seed * 1000003ull + static_cast<std::uint64_t>(mm) * 1009ull + salt;
}

}  // namespace

VirtualSensor::RayCamera VirtualSensor::rectified_camera(int camera) const {
  RayCamera rays;
  rays.size = cv::Size(rig_.width, rig_.height);
  rays.origin = cv::Vec3d(camera == 1 ? rig_.baseline_mm : 0.0, 0.0, 0.0);
  const SimRig rig = rig_;
  rays.row_rays = [rig](int row, int n, std::vector<cv::Vec3d>& dirs) {
    std::vector<cv::Point2d> samples;
    sample_row(rig.width, row, n, samples);
    dirs.resize(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
      dirs[i] = cv::Vec3d((samples[i].x - rig.cx()) / rig.focal_px,
                          (samples[i].y - rig.cy()) / rig.focal_px, 1.0);
    }
  };
  return rays;
}

VirtualSensor::RayCamera VirtualSensor::real_camera(const SimCamera& camera) const {
  RayCamera rays;
  rays.size = camera.size;
  rays.origin = camera.center();
  rays.row_rays = [camera](int row, int n, std::vector<cv::Vec3d>& dirs) {
    std::vector<cv::Point2d> samples;
    sample_row(camera.size.width, row, n, samples);
    const cv::Matx33d world_from_cam = camera.cam_from_world_R.t();
    dirs.resize(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const cv::Point2d ray = camera.undistort(samples[i]);
      dirs[i] = world_from_cam * cv::Vec3d(ray.x, ray.y, 1.0);
    }
  };
  return rays;
}

std::vector<cv::Mat> VirtualSensor::render_frames(const RayCamera& camera, const SimLight& light) const {
  std::vector<cv::Mat> radiance(kFrames);
  for (cv::Mat& r : radiance) r = cv::Mat::zeros(camera.size, CV_32F);
  const int n = std::max(1, light.supersampling);
  const double weight = 1.0 / (n * n);
  std::vector<cv::Vec3d> dirs;
  for (int v = 0; v < camera.size.height; ++v) {
    camera.row_rays(v, n, dirs);
    for (int u = 0; u < camera.size.width; ++u) {
      double acc[kFrames] = {};
      for (int k = 0; k < n * n; ++k) {
        Hit hit;
        if (!cast(camera.origin, dirs[static_cast<std::size_t>(u) * n * n + k], hit)) continue;
        const double a = albedo(hit.point);
        const double base = a * light.ambient;
        const cv::Point2d pixel = projector_pixel(hit.point);
        double pattern[kFrames] = {};
        double lit = 0.0;
        if (lit_by_projector(hit.point, pixel)) {
          const cv::Vec3d to_projector = cv::normalize(projector_center_ - hit.point);
          lit = a * light.projector_gain * std::max(0.0, hit.normal.dot(to_projector));
          sample_frames(pixel, pattern);
        }
        for (int f = 0; f < kFrames; ++f) {
          acc[f] += weight * (base + lit * with_fringe_contrast(f, pattern[f], light.fringe_contrast));
        }
      }
      for (int f = 0; f < kFrames; ++f) radiance[f].at<float>(v, u) = float(acc[f]);
    }
  }
  std::vector<cv::Mat> frames(kFrames);
  for (int f = 0; f < kFrames; ++f) {
    frames[f] = finish_frame(radiance[f], light, camera_seed(light, camera.origin, f));
  }
  return frames;
}

cv::Mat VirtualSensor::render_texture(const RayCamera& camera, const SimLight& light) const {
  cv::Mat radiance = cv::Mat::zeros(camera.size, CV_32F);
  const int n = std::max(1, light.supersampling);
  std::vector<cv::Vec3d> dirs;
  for (int v = 0; v < camera.size.height; ++v) {
    camera.row_rays(v, n, dirs);
    for (int u = 0; u < camera.size.width; ++u) {
      double acc = 0.0;
      for (int k = 0; k < n * n; ++k) {
        Hit hit;
        if (!cast(camera.origin, dirs[static_cast<std::size_t>(u) * n * n + k], hit)) continue;
        // Diffuse light from everywhere: only the albedo shows.
        acc += albedo(hit.point) * (light.ambient + light.projector_gain);
      }
      radiance.at<float>(v, u) = float(acc / (n * n));
    }
  }
  return finish_frame(radiance, light, camera_seed(light, camera.origin, 7000));
}

std::vector<cv::Mat> VirtualSensor::render_phase_shift(int camera, const SimLight& light) const {
  return render_frames(rectified_camera(camera), light);
}

std::vector<cv::Mat> VirtualSensor::render_phase_shift(const SimCamera& camera,
                                                       const SimLight& light) const {
  return render_frames(real_camera(camera), light);
}

cv::Mat VirtualSensor::render_textured(int camera, const SimLight& light) const {
  return render_texture(rectified_camera(camera), light);
}

cv::Mat VirtualSensor::render_textured(const SimCamera& camera, const SimLight& light) const {
  return render_texture(real_camera(camera), light);
}

namespace {

// Normalised distorted coordinates of normalised (x, y) through the lens
// (k1 k2 p1 p2 k3), and, when `jacobian` is given, their derivatives
// d(xd, yd) / d(x, y), row-major.
cv::Point2d distort(const cv::Vec<double, 5>& d, double x, double y,
                    cv::Matx22d* jacobian = nullptr) {
  const double r2 = x * x + y * y;
  const double radial = 1.0 + r2 * (d[0] + r2 * (d[1] + r2 * d[4]));
  const double xd = x * radial + 2.0 * d[2] * x * y + d[3] * (r2 + 2.0 * x * x);
  const double yd = y * radial + d[2] * (r2 + 2.0 * y * y) + 2.0 * d[3] * x * y;
  if (jacobian) {
    const double slope = 2.0 * (d[0] + r2 * (2.0 * d[1] + 3.0 * r2 * d[4]));  // d radial / dr2, x2
    const double cross = x * y * slope + 2.0 * d[2] * x + 2.0 * d[3] * y;
    *jacobian = cv::Matx22d(radial + x * x * slope + 2.0 * d[2] * y + 6.0 * d[3] * x, cross,
                            cross, radial + y * y * slope + 6.0 * d[2] * y + 2.0 * d[3] * x);
  }
  return {xd, yd};
}

// Distorted pixel of a world point (as cv::projectPoints), without the
// per-call set-up of OpenCV's: the mask projects millions of points.
cv::Point2d project_fast(const SimCamera& camera, const cv::Vec3d& world) {
  const cv::Vec3d c = camera.cam_from_world_R * world + camera.cam_from_world_t;
  const cv::Point2d p = distort(camera.distortion, c[0] / c[2], c[1] / c[2]);
  const cv::Matx33d& K = camera.K;
  return cv::Point2d(K(0, 0) * p.x + K(0, 1) * p.y + K(0, 2), K(1, 1) * p.y + K(1, 2));
}

}  // namespace

// Cheap tests first: facing, period range and camera 1's image before the
// two shadow rays.
bool VirtualSensor::measurable(const Hit& hit, const SimCamera& camera1) const {
  const cv::Vec3d to_projector = projector_center_ - hit.point;
  const cv::Vec3d centre1 = camera1.center();
  const cv::Vec3d to_camera1 = centre1 - hit.point;
  if (hit.normal.dot(to_projector) <= 0.0 || hit.normal.dot(to_camera1) <= 0.0) return false;
  const cv::Point2d pixel = projector_pixel(hit.point);
  const int period = layout_.period_index(pixel.x);
  if (period < kFirstUsablePeriod || period > kLastUsablePeriod) return false;
  if ((camera1.cam_from_world_R * hit.point + camera1.cam_from_world_t)[2] <= 0.0) return false;
  const cv::Point2d seen = project_fast(camera1, hit.point);
  if (!(seen.x >= -0.5 && seen.y >= -0.5 && seen.x <= camera1.size.width - 0.5 &&
        seen.y <= camera1.size.height - 0.5)) {
    return false;
  }
  if (!lit_by_projector(hit.point, pixel)) return false;
  // The first surface on camera 1's ray towards the point must be the point.
  const double distance = cv::norm(to_camera1);
  Hit first;
  return cast(centre1, -to_camera1 / distance, first) && first.t > distance - 1e-6 * distance;
}

cv::Mat VirtualSensor::measurable_pixels(const SimCamera& camera0, const SimCamera& camera1) const {
  constexpr int kSamples = 3;  // per side of a pixel
  const RayCamera rays = real_camera(camera0);
  cv::Mat mask(camera0.size, CV_8UC1, cv::Scalar(0));
  // Rows split over the library's threads (sl3d::set_num_threads).
  const int rows = camera0.size.height;
  detail::run_chunks(detail::chunks_for(rows, 16), rows, [&](int, int begin, int end) {
    std::vector<cv::Vec3d> dirs;
    for (int v = begin; v < end; ++v) {
      rays.row_rays(v, kSamples, dirs);
      for (int u = 0; u < camera0.size.width; ++u) {
        bool all = true;
        for (int k = 0; k < kSamples * kSamples && all; ++k) {
          Hit hit;
          all = cast(rays.origin, dirs[std::size_t(u) * kSamples * kSamples + k], hit) &&
                measurable(hit, camera1);
        }
        if (all) mask.at<std::uint8_t>(v, u) = 255;
      }
    }
  });
  return mask;
}

double VirtualSensor::distance_to_scene(const cv::Vec3d& point) const {
  double best = std::numeric_limits<double>::infinity();
  for (const SimPlane& plane : scene_.planes) {
    const cv::Vec3d n = cv::normalize(plane.normal);
    best = std::min(best, std::fabs(n.dot(point - plane.point)));
  }
  for (const SimSphere& sphere : scene_.spheres) {
    best = std::min(best, std::fabs(cv::norm(point - sphere.center) - sphere.radius));
  }
  return best;
}

cv::Vec3d SimCamera::center() const { return -(cam_from_world_R.t() * cam_from_world_t); }

cv::Point2d SimCamera::project(const cv::Vec3d& world) const {
  cv::Vec3d rvec;
  cv::Rodrigues(cv::Mat(cam_from_world_R), rvec);
  std::vector<cv::Point2d> image;
  cv::projectPoints(std::vector<cv::Point3d>{cv::Point3d(world[0], world[1], world[2])}, rvec,
                    cam_from_world_t, cv::Mat(K), cv::Mat(distortion), image);
  return image[0];
}

cv::Point2d SimCamera::undistort(const cv::Point2d& pixel) const {
  // The distorted normalised point, then Newton steps from it.
  const double yd = (pixel.y - K(1, 2)) / K(1, 1);
  const double xd = (pixel.x - K(0, 2) - K(0, 1) * yd) / K(0, 0);
  const double tolerance = 1e-12 / std::max(K(0, 0), K(1, 1));  // normalised units for 1e-12 px
  const double tolerance2 = tolerance * tolerance;
  double x = xd, y = yd;
  for (int step = 0; step < 20; ++step) {
    cv::Matx22d j;
    const cv::Point2d seen = distort(distortion, x, y, &j);
    const double rx = seen.x - xd, ry = seen.y - yd;
    if (rx * rx + ry * ry < tolerance2) return {x, y};
    const double det = j(0, 0) * j(1, 1) - j(0, 1) * j(1, 0);
    if (!(std::fabs(det) > 1e-12)) break;
    const double inv_det = 1.0 / det;
    x -= (j(1, 1) * rx - j(0, 1) * ry) * inv_det;
    y -= (j(0, 0) * ry - j(1, 0) * rx) * inv_det;
  }
  std::vector<cv::Point2d> normalized;
  cv::undistortPoints(std::vector<cv::Point2d>{pixel}, normalized, cv::Mat(K),
                      cv::Mat(distortion), cv::noArray(), cv::noArray(),
                      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 50, 1e-12));
  return normalized[0];
}

std::array<SimCamera, 2> default_raw_cameras(const SimRig& rig) {
  std::array<SimCamera, 2> cams;
  const double scale = rig.width / 1280.0;
  const struct {
    double fx, fy, cx_offset, cy_offset;
    cv::Vec<double, 5> distortion;
    cv::Vec3d rotation;  // Rodrigues, cam_from_world
    cv::Vec3d center;
  } camera_setup[2] = {
      {1410.0, 1405.0, 6.0, -4.0, {-0.12, 0.08, 0.0006, -0.0004, -0.02},
       {0.004, -0.012, 0.003}, {0.0, 0.0, 0.0}},
      {1395.0, 1398.0, -5.0, 7.0, {-0.10, 0.06, -0.0005, 0.0003, -0.01},
       {-0.006, 0.015, -0.004}, {rig.baseline_mm, 1.5, -2.0}},
  };
  for (int i = 0; i < 2; ++i) {
    SimCamera& c = cams[i];
    c.size = cv::Size(rig.width, rig.height);
    c.K = cv::Matx33d(camera_setup[i].fx * scale, 0.0, rig.cx() + camera_setup[i].cx_offset * scale,
                      0.0, camera_setup[i].fy * scale, rig.cy() + camera_setup[i].cy_offset * scale,
                      0.0, 0.0, 1.0);
    c.distortion = camera_setup[i].distortion;
    cv::Mat r;
    cv::Rodrigues(camera_setup[i].rotation, r);
    c.cam_from_world_R = cv::Matx33d(r);
    c.cam_from_world_t = -(c.cam_from_world_R * camera_setup[i].center);
  }
  return cams;
}

SimGroundTruth VirtualSensor::ground_truth() const {
  SimGroundTruth truth;
  truth.depth = cv::Mat(rig_.height, rig_.width, CV_64F);
  for (int v = 0; v < rig_.height; ++v) {
    for (int u = 0; u < rig_.width; ++u) {
      const cv::Vec3d dir((u - rig_.cx()) / rig_.focal_px, (v - rig_.cy()) / rig_.focal_px, 1.0);
      Hit hit;
      truth.depth.at<double>(v, u) =
          cast(cv::Vec3d(0, 0, 0), dir, hit) ? hit.point[2] : std::numeric_limits<double>::quiet_NaN();
    }
  }
  truth.q = {1.0, 0.0, 0.0, -rig_.cx(),
             0.0, 1.0, 0.0, -rig_.cy(),
             0.0, 0.0, 0.0, rig_.focal_px,
             0.0, 0.0, 1.0 / rig_.baseline_mm, 0.0};
  return truth;
}

}  // namespace sl3d
