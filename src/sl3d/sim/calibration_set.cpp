#include <sl3d/sim/calibration_set.h>

#include <cmath>

#include <opencv2/calib3d.hpp>

namespace sl3d {

namespace {

// Pixels kept free around the board in every image.
constexpr double kImageMarginPx = 8.0;
// Where the views aim, as fractions of half of camera 0's image: its middle,
// then its corners and edges.
const cv::Point2d kAims[] = {{0, 0},      {-0.6, -0.6}, {0.6, 0.6},  {0.6, -0.6},
                             {-0.6, 0.6}, {0, -0.7},    {0.7, 0},    {0, 0.7},
                             {-0.7, 0},   {-0.4, 0.3},  {0.4, -0.3}, {0.3, 0.4}};

// The board's orientation facing camera 0, as board_pose_facing turns it.
cv::Matx33d board_rotation(const BoardLayout& layout, const ViewAngles& a) {
  cv::Matx33d r;
  cv::Rodrigues(board_pose_facing(layout, 1.0, a.tilt_x, a.tilt_y, a.roll).rvec, r);
  return r;
}

// The board's outline: its four corners, margin included.
std::vector<cv::Vec3d> board_corners(const BoardLayout& layout) {
  const double x1 = (layout.circles_x - 1) * layout.spacing + layout.margin;
  const double y1 = (layout.circles_y - 1) * layout.spacing + layout.margin;
  const double m = -layout.margin;
  return {{m, m, 0}, {x1, m, 0}, {m, y1, 0}, {x1, y1, 0}};
}

bool seen_whole(const SimCamera& camera, const BoardPose& world_from_board,
                const std::vector<cv::Vec3d>& corners) {
  cv::Matx33d r;
  cv::Rodrigues(world_from_board.rvec, r);
  for (const cv::Vec3d& corner : corners) {
    const cv::Vec3d world = r * corner + world_from_board.tvec;
    const cv::Vec3d cam = camera.cam_from_world_R * world + camera.cam_from_world_t;
    if (cam[2] <= 0.0) return false;
    const cv::Point2d p = camera.project(world);
    if (p.x < kImageMarginPx || p.y < kImageMarginPx ||
        p.x > camera.size.width - 1 - kImageMarginPx ||
        p.y > camera.size.height - 1 - kImageMarginPx)
      return false;
  }
  return true;
}

BoardPose aimed_pose(const std::array<SimCamera, 2>& cameras, const BoardLayout& layout,
                     const cv::Matx33d& cam0_from_board, const cv::Point2d& aim, double distance) {
  const SimCamera& cam0 = cameras[0];
  const cv::Matx33d world_from_cam0 = cam0.cam_from_world_R.t();
  const cv::Vec3d ray(aim.x * 0.5 * cam0.size.width / cam0.K(0, 0),
                      aim.y * 0.5 * cam0.size.height / cam0.K(1, 1), 1.0);
  const cv::Vec3d from = 0.5 * (cameras[0].center() + cameras[1].center());
  const cv::Vec3d middle_world = from + distance * (world_from_cam0 * ray);
  const cv::Vec3d middle_board((layout.circles_x - 1) * layout.spacing / 2.0,
                               (layout.circles_y - 1) * layout.spacing / 2.0, 0.0);
  const cv::Matx33d r = world_from_cam0 * cam0_from_board;
  BoardPose pose;
  cv::Rodrigues(r, pose.rvec);
  pose.tvec = middle_world - r * middle_board;
  return pose;
}

}  // namespace

std::vector<BoardPose> calibration_poses(const std::array<SimCamera, 2>& cameras,
                                         const BoardLayout& layout,
                                         const std::vector<ViewAngles>& angles, double near_mm,
                                         double far_mm) {
  const double distances[] = {near_mm, 0.5 * (near_mm + far_mm), far_mm};
  const std::vector<cv::Vec3d> corners = board_corners(layout);
  std::vector<BoardPose> poses;
  for (std::size_t k = 0; k < angles.size(); ++k) {
    const cv::Matx33d rotation = board_rotation(layout, angles[k]);
    const double distance = distances[k % 3];
    cv::Point2d aim = kAims[k % (sizeof kAims / sizeof kAims[0])];
    BoardPose pose = aimed_pose(cameras, layout, rotation, aim, distance);
    for (int step = 0; step < 30; ++step) {
      if (seen_whole(cameras[0], pose, corners) && seen_whole(cameras[1], pose, corners)) break;
      aim *= 0.85;
      pose = aimed_pose(cameras, layout, rotation, aim, distance);
    }
    poses.push_back(pose);
  }
  return poses;
}

std::vector<StereoBoardView> render_calibration_set(const std::array<SimCamera, 2>& cameras,
                                                    const BoardLayout& layout,
                                                    const std::vector<BoardPose>& poses,
                                                    const BoardImaging& imaging,
                                                    const BoardTexture* texture) {
  const DistortedBoardCamera viewers[2] = {DistortedBoardCamera(cameras[0]),
                                           DistortedBoardCamera(cameras[1])};
  std::vector<StereoBoardView> views;
  for (std::size_t k = 0; k < poses.size(); ++k) {
    StereoBoardView view;
    view.world_from_board = poses[k];
    for (int c = 0; c < 2; ++c) {
      BoardImaging shot = imaging;
      shot.seed = imaging.seed + std::uint32_t(2 * k + c);
      view.images[c] = texture ? viewers[c].render(*texture, layout, poses[k], shot)
                               : viewers[c].render(layout, poses[k], shot);
    }
    views.push_back(std::move(view));
  }
  return views;
}

}  // namespace sl3d
