#include <sl3d/sim/board_renderer.h>

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/sim/sensor_effects.h>

namespace sl3d {

namespace {

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

cv::Matx33d rotation(const BoardPose& pose) {
  cv::Matx33d r;
  cv::Rodrigues(pose.rvec, r);
  return r;
}

cv::Matx33d intrinsics(const BoardCamera& camera) {
  return cv::Matx33d(camera.fx, 0, camera.cx, 0, camera.fy, camera.cy, 0, 0, 1);
}

// Board plane (X, Y, 1) -> homogeneous pixel: K [r1 r2 t].
cv::Matx33d plane_homography(const BoardPose& pose, const cv::Matx33d& k) {
  const cv::Matx33d r = rotation(pose);
  const cv::Matx33d rt(r(0, 0), r(0, 1), pose.tvec[0], r(1, 0), r(1, 1), pose.tvec[1],
                       r(2, 0), r(2, 1), pose.tvec[2]);
  return k * rt;
}

// Grey level of the board point (x, y); holes[k] is the hole radius of
// circle k (0 for a plain disc).
class BoardShader {
 public:
  BoardShader(const BoardLayout& layout, const BoardImaging& imaging)
      : layout_(layout), imaging_(imaging),
        holes_(std::size_t(std::max(0, layout.circles_x * layout.circles_y)), 0.0) {
    for (const BoardRing& ring : layout.rings)
      if (ring.i >= 0 && ring.i < layout.circles_x && ring.j >= 0 && ring.j < layout.circles_y)
        holes_[std::size_t(ring.j * layout.circles_x + ring.i)] = ring.hole_radius;
  }

  // The footprint does not matter: the drawing is evaluated exactly.
  double shade(double x, double y, double /*footprint*/) const {
    const double s = layout_.spacing, m = layout_.margin;
    if (x < -m || y < -m || x > (layout_.circles_x - 1) * s + m ||
        y > (layout_.circles_y - 1) * s + m)
      return imaging_.background;
    const double circle = layout_.dark_circles ? imaging_.dark : imaging_.light;
    const double ground = layout_.dark_circles ? imaging_.light : imaging_.dark;
    // Circles do not overlap, so only the nearest centre can contain (x, y).
    const int i = int(std::lround(x / s)), j = int(std::lround(y / s));
    if (i < 0 || j < 0 || i >= layout_.circles_x || j >= layout_.circles_y) return ground;
    const double d = std::hypot(x - i * s, y - j * s);
    const double hole = holes_[std::size_t(j * layout_.circles_x + i)];
    return d <= layout_.radius && d >= hole ? circle : ground;
  }

 private:
  const BoardLayout& layout_;
  const BoardImaging& imaging_;
  std::vector<double> holes_;
};

// Centre of the image ellipse of the board circle at (x0, y0) with radius r:
// the circle's conic mapped through the plane homography.
cv::Point2d conic_centre(const cv::Matx33d& h_inv, double x0, double y0, double r) {
  const cv::Matx33d board(1, 0, -x0, 0, 1, -y0, -x0, -y0, x0 * x0 + y0 * y0 - r * r);
  const cv::Matx33d c = h_inv.t() * board * h_inv;
  const cv::Matx22d quad(c(0, 0), c(0, 1), c(1, 0), c(1, 1));
  const cv::Vec2d centre = quad.inv() * cv::Vec2d(-c(0, 2), -c(1, 2));
  return cv::Point2d(centre[0], centre[1]);
}

// Calls visit(x, y) with every circle centre on the board, row by row.
template <typename Visit>
void for_each_circle(const BoardLayout& layout, Visit visit) {
  for (int j = 0; j < layout.circles_y; ++j)
    for (int i = 0; i < layout.circles_x; ++i) visit(i * layout.spacing, j * layout.spacing);
}

// Grey level of a bitmap board: its dark and light levels become the
// imaging's dark and light shades; off the bitmap is background.
class TextureShader {
 public:
  TextureShader(const BoardTexture& texture, const BoardImaging& imaging)
      : texture_(texture), imaging_(imaging) {}
  double shade(double x, double y, double footprint) const {
    const double light = texture_.sample(x, y, footprint);
    if (light < 0.0) return imaging_.background;
    return imaging_.dark + light * (imaging_.light - imaging_.dark);
  }

 private:
  const BoardTexture& texture_;
  const BoardImaging& imaging_;
};

// Mean shade of each pixel's n x n samples. ray(u, v, sx, sy) is the
// camera-frame direction (z = 1) of a sample; it meets the board plane or
// sees the background. `sample_angle` is the angle between neighbouring
// samples (1 / (n * focal length)); with the distance and the slant it
// gives the shader each sample's footprint on the board.
template <typename Shader, typename Ray>
cv::Mat render_radiance(const Shader& shader, const BoardPose& pose, const BoardImaging& imaging,
                        cv::Size size, int n, double sample_angle, Ray ray) {
  const cv::Matx33d board_from_cam = rotation(pose).t();
  const cv::Vec3d origin = -(board_from_cam * pose.tvec);  // camera centre on the board
  cv::Mat radiance(size, CV_32F);
  for (int v = 0; v < size.height; ++v) {
    for (int u = 0; u < size.width; ++u) {
      double sum = 0.0;
      for (int sy = 0; sy < n; ++sy) {
        for (int sx = 0; sx < n; ++sx) {
          const cv::Vec3d dir = board_from_cam * ray(u, v, sx, sy);
          const double s = dir[2] != 0.0 ? -origin[2] / dir[2] : -1.0;
          if (!(s > 0.0)) {
            sum += imaging.background;
            continue;
          }
          const double length = cv::norm(dir);
          const double slant = std::sqrt(std::fabs(dir[2]) / length);
          const double footprint = s * length * sample_angle / slant;
          sum += shader.shade(origin[0] + s * dir[0], origin[1] + s * dir[1], footprint);
        }
      }
      radiance.at<float>(v, u) = float(sum / (n * n));
    }
  }
  return radiance;
}

cv::Mat finish(const cv::Mat& radiance, const BoardImaging& imaging) {
  return detail::blur_noise_quantise(radiance, imaging.blur_sigma_px, imaging.noise_sigma,
                                     imaging.seed);
}

}  // namespace

namespace {

template <typename Shader>
BoardRendering render_pinhole(const Shader& shader, const BoardLayout& layout,
                              const BoardPose& pose, const BoardCamera& camera,
                              const BoardImaging& imaging) {
  const int n = std::max(1, imaging.supersampling);
  const double fx = camera.fx, fy = camera.fy, cx = camera.cx, cy = camera.cy;
  auto ray = [&](int u, int v, int sx, int sy) {
    const double pu = u + (sx + 0.5) / n - 0.5, pv = v + (sy + 0.5) / n - 0.5;
    return cv::Vec3d((pu - cx) / fx, (pv - cy) / fy, 1.0);
  };
  BoardRendering out;
  out.image = finish(render_radiance(shader, pose, imaging, cv::Size(camera.width, camera.height),
                                     n, 1.0 / (n * std::sqrt(fx * fy)), ray),
                     imaging);
  const cv::Matx33d h = plane_homography(pose, intrinsics(camera));
  const cv::Matx33d h_inv = h.inv();
  for_each_circle(layout, [&](double x, double y) {
    const cv::Vec3d p = h * cv::Vec3d(x, y, 1.0);
    out.centres.emplace_back(p[0] / p[2], p[1] / p[2]);
    out.ellipse_centres.push_back(conic_centre(h_inv, x, y, layout.radius));
  });
  return out;
}

}  // namespace

BoardRendering render_board(const BoardLayout& layout, const BoardPose& pose,
                            const BoardCamera& camera, const BoardImaging& imaging) {
  return render_pinhole(BoardShader(layout, imaging), layout, pose, camera, imaging);
}

BoardRendering render_board(const BoardTexture& texture, const BoardLayout& layout,
                            const BoardPose& pose, const BoardCamera& camera,
                            const BoardImaging& imaging) {
  return render_pinhole(TextureShader(texture, imaging), layout, pose, camera, imaging);
}

DistortedBoardCamera::DistortedBoardCamera(const SimCamera& camera, int supersampling)
    : camera_(camera), supersampling_(std::max(1, supersampling)) {
  const int n = supersampling_;
  rays_.reserve(std::size_t(camera.size.area()) * n * n);
  for (int v = 0; v < camera.size.height; ++v)
    for (int u = 0; u < camera.size.width; ++u)
      for (int sy = 0; sy < n; ++sy)
        for (int sx = 0; sx < n; ++sx)
          rays_.emplace_back(camera.undistort({u + (sx + 0.5) / n - 0.5, v + (sy + 0.5) / n - 0.5}));
}

BoardRendering DistortedBoardCamera::render(const BoardLayout& layout,
                                            const BoardPose& world_from_board,
                                            const BoardImaging& imaging) const {
  return render_with(BoardShader(layout, imaging), layout, world_from_board, imaging);
}

BoardRendering DistortedBoardCamera::render(const BoardTexture& texture,
                                            const BoardLayout& layout,
                                            const BoardPose& world_from_board,
                                            const BoardImaging& imaging) const {
  return render_with(TextureShader(texture, imaging), layout, world_from_board, imaging);
}

template <typename Shader>
BoardRendering DistortedBoardCamera::render_with(const Shader& shader, const BoardLayout& layout,
                                                 const BoardPose& world_from_board,
                                                 const BoardImaging& imaging) const {
  const BoardPose pose = cam_from_board(world_from_board);
  const int n = supersampling_;
  const int width = camera_.size.width;
  auto ray = [&](int u, int v, int sx, int sy) {
    const cv::Point2f& p = rays_[((std::size_t(v) * width + u) * n + sy) * n + sx];
    return cv::Vec3d(p.x, p.y, 1.0);
  };
  const double sample_angle = 1.0 / (n * std::sqrt(camera_.K(0, 0) * camera_.K(1, 1)));
  BoardRendering out;
  out.image = finish(render_radiance(shader, pose, imaging, camera_.size, n, sample_angle, ray),
                     imaging);

  // Centres in the undistorted normalised image, then through the lens.
  const cv::Matx33d h = plane_homography(pose, cv::Matx33d::eye());
  const cv::Matx33d h_inv = h.inv();
  std::vector<cv::Point3d> centres, ellipse_centres;
  for_each_circle(layout, [&](double x, double y) {
    const cv::Vec3d p = h * cv::Vec3d(x, y, 1.0);
    centres.emplace_back(p[0] / p[2], p[1] / p[2], 1.0);
    const cv::Point2d e = conic_centre(h_inv, x, y, layout.radius);
    ellipse_centres.emplace_back(e.x, e.y, 1.0);
  });
  out.centres = distort(centres);
  out.ellipse_centres = distort(ellipse_centres);
  return out;
}

BoardPose DistortedBoardCamera::cam_from_board(const BoardPose& world_from_board) const {
  const cv::Matx33d world_from_board_r = rotation(world_from_board);
  const cv::Matx33d r = camera_.cam_from_world_R * world_from_board_r;
  BoardPose pose;
  cv::Rodrigues(r, pose.rvec);
  pose.tvec = camera_.cam_from_world_R * world_from_board.tvec + camera_.cam_from_world_t;
  return pose;
}

std::vector<cv::Point2d> DistortedBoardCamera::distort(
    const std::vector<cv::Point3d>& normalized) const {
  std::vector<cv::Point2d> pixels;
  cv::projectPoints(normalized, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), cv::Mat(camera_.K),
                    cv::Mat(camera_.distortion), pixels);
  return pixels;
}

BoardPose board_pose_facing(const BoardLayout& layout, double distance, double tilt_x_deg,
                            double tilt_y_deg, double roll_deg) {
  const double ax = tilt_x_deg * kDegToRad, ay = tilt_y_deg * kDegToRad,
               az = roll_deg * kDegToRad;
  const cv::Matx33d rx(1, 0, 0, 0, std::cos(ax), -std::sin(ax), 0, std::sin(ax), std::cos(ax));
  const cv::Matx33d ry(std::cos(ay), 0, std::sin(ay), 0, 1, 0, -std::sin(ay), 0, std::cos(ay));
  const cv::Matx33d rz(std::cos(az), -std::sin(az), 0, std::sin(az), std::cos(az), 0, 0, 0, 1);
  const cv::Matx33d r = ry * rx * rz;
  const cv::Vec3d middle((layout.circles_x - 1) * layout.spacing / 2.0,
                         (layout.circles_y - 1) * layout.spacing / 2.0, 0.0);
  BoardPose pose;
  cv::Rodrigues(r, pose.rvec);
  pose.tvec = cv::Vec3d(0.0, 0.0, distance) - r * middle;
  return pose;
}

BoardTexture::BoardTexture(const cv::Mat& image, double pixels_per_unit, cv::Point2d origin_px)
    : size_(image.size()), pixels_per_unit_(pixels_per_unit), origin_px_(origin_px) {
  // Padded with light to a multiple of the coarsest level's pixel, so that
  // every level halves the one before exactly and pixel centres stay put.
  constexpr int kMinLevelSide = 8;
  int levels = 1;
  while ((std::min(image.cols, image.rows) >> levels) >= kMinLevelSide) ++levels;
  const int block = 1 << (levels - 1);
  cv::Mat padded;
  cv::copyMakeBorder(image, padded, 0, (block - image.rows % block) % block, 0,
                     (block - image.cols % block) % block, cv::BORDER_CONSTANT, cv::Scalar(255));
  cv::Mat level;
  padded.convertTo(level, CV_32F, 1.0 / 255.0);
  levels_.push_back(level);
  for (int k = 1; k < levels; ++k) {
    cv::Mat half;
    cv::resize(levels_.back(), half, cv::Size(levels_.back().cols / 2, levels_.back().rows / 2), 0,
               0, cv::INTER_AREA);
    levels_.push_back(half);
  }
}

double BoardTexture::bilinear(int level, double x, double y) const {
  const cv::Mat& img = levels_[std::size_t(level)];
  const double scale = 1.0 / (1 << level);
  // Pixel centres of level k sit at (x0 + 0.5) / 2^k - 0.5.
  const double lx = (x + 0.5) * scale - 0.5, ly = (y + 0.5) * scale - 0.5;
  const int x0 = int(std::floor(lx)), y0 = int(std::floor(ly));
  const double fx = lx - x0, fy = ly - y0;
  const int c0 = std::clamp(x0, 0, img.cols - 1), c1 = std::clamp(x0 + 1, 0, img.cols - 1);
  const int r0 = std::clamp(y0, 0, img.rows - 1), r1 = std::clamp(y0 + 1, 0, img.rows - 1);
  const float* top = img.ptr<float>(r0);
  const float* bottom = img.ptr<float>(r1);
  const double upper = top[c0] + fx * (top[c1] - top[c0]);
  const double lower = bottom[c0] + fx * (bottom[c1] - bottom[c0]);
  return upper + fy * (lower - upper);
}

double BoardTexture::sample(double x, double y, double footprint) const {
  const double px = origin_px_.x + x * pixels_per_unit_;
  const double py = origin_px_.y + y * pixels_per_unit_;
  if (px < -0.5 || py < -0.5 || px > size_.width - 0.5 || py > size_.height - 0.5) return -1.0;
  // Level whose pixel is the footprint; between two levels, a blend.
  const double level = std::clamp(std::log2(std::max(footprint * pixels_per_unit_, 1.0)), 0.0,
                                  double(levels_.size() - 1));
  const int fine = int(std::floor(level));
  const int coarse = std::min(fine + 1, int(levels_.size()) - 1);
  const double t = level - fine;
  const double a = bilinear(fine, px, py);
  return t > 0.0 ? a + t * (bilinear(coarse, px, py) - a) : a;
}

std::vector<BoardRing> three_ring_base_markers(int i, int j, double hole_radius, bool mirrored) {
  const int y_row = mirrored ? j + 1 : j - 1;
  return {{i, j, hole_radius}, {i + 2, j, hole_radius}, {i, y_row, hole_radius}};
}

std::vector<BoardRing> one_ring_base_marker(int i, int j, double hole_radius) {
  return {{i, j, hole_radius}};
}

}  // namespace sl3d
