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

  double shade(double x, double y) const {
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

// Mean shade of each pixel's n x n samples. ray(u, v, sx, sy) is the
// camera-frame direction (z = 1) of a sample; it meets the board plane or
// sees the background.
template <typename Ray>
cv::Mat render_radiance(const BoardLayout& layout, const BoardPose& pose,
                        const BoardImaging& imaging, cv::Size size, int n, Ray ray) {
  const cv::Matx33d board_from_cam = rotation(pose).t();
  const cv::Vec3d origin = -(board_from_cam * pose.tvec);  // camera centre on the board
  const BoardShader shader(layout, imaging);
  cv::Mat radiance(size, CV_32F);
  for (int v = 0; v < size.height; ++v) {
    for (int u = 0; u < size.width; ++u) {
      double sum = 0.0;
      for (int sy = 0; sy < n; ++sy) {
        for (int sx = 0; sx < n; ++sx) {
          const cv::Vec3d dir = board_from_cam * ray(u, v, sx, sy);
          const double s = dir[2] != 0.0 ? -origin[2] / dir[2] : -1.0;
          sum += s > 0.0 ? shader.shade(origin[0] + s * dir[0], origin[1] + s * dir[1])
                         : imaging.background;
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

BoardRendering render_board(const BoardLayout& layout, const BoardPose& pose,
                            const BoardCamera& camera, const BoardImaging& imaging) {
  const int n = std::max(1, imaging.supersampling);
  const double fx = camera.fx, fy = camera.fy, cx = camera.cx, cy = camera.cy;
  auto ray = [&](int u, int v, int sx, int sy) {
    const double pu = u + (sx + 0.5) / n - 0.5, pv = v + (sy + 0.5) / n - 0.5;
    return cv::Vec3d((pu - cx) / fx, (pv - cy) / fy, 1.0);
  };
  BoardRendering out;
  out.image = finish(render_radiance(layout, pose, imaging, cv::Size(camera.width, camera.height),
                                     n, ray),
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

DistortedBoardCamera::DistortedBoardCamera(const SimCamera& camera, int supersampling)
    : camera_(camera), supersampling_(std::max(1, supersampling)) {
  const int n = supersampling_;
  std::vector<cv::Point2d> samples;
  samples.reserve(std::size_t(camera.size.area()) * n * n);
  for (int v = 0; v < camera.size.height; ++v)
    for (int u = 0; u < camera.size.width; ++u)
      for (int sy = 0; sy < n; ++sy)
        for (int sx = 0; sx < n; ++sx)
          samples.emplace_back(u + (sx + 0.5) / n - 0.5, v + (sy + 0.5) / n - 0.5);
  std::vector<cv::Point2d> normalized;
  // Inverting the lens model needs iterations; a tight criterion keeps the
  // rendered geometry exact to far below a pixel.
  cv::undistortPoints(samples, normalized, cv::Mat(camera.K), cv::Mat(camera.distortion),
                      cv::noArray(), cv::noArray(),
                      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 50, 1e-12));
  rays_.assign(normalized.begin(), normalized.end());
}

BoardRendering DistortedBoardCamera::render(const BoardLayout& layout,
                                            const BoardPose& world_from_board,
                                            const BoardImaging& imaging) const {
  const BoardPose pose = cam_from_board(world_from_board);
  const int n = supersampling_;
  const int width = camera_.size.width;
  auto ray = [&](int u, int v, int sx, int sy) {
    const cv::Point2f& p = rays_[((std::size_t(v) * width + u) * n + sy) * n + sx];
    return cv::Vec3d(p.x, p.y, 1.0);
  };
  BoardRendering out;
  out.image = finish(render_radiance(layout, pose, imaging, camera_.size, n, ray), imaging);

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

std::vector<BoardRing> three_ring_base_markers(int i, int j, double hole_radius, bool mirrored) {
  const int y_row = mirrored ? j + 1 : j - 1;
  return {{i, j, hole_radius}, {i + 2, j, hole_radius}, {i, y_row, hole_radius}};
}

std::vector<BoardRing> one_ring_base_marker(int i, int j, double hole_radius) {
  return {{i, j, hole_radius}};
}

}  // namespace sl3d
