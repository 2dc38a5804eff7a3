#include <sl3d/calibrator/view_pose.h>

#include <algorithm>

#include <opencv2/calib3d.hpp>

namespace sl3d {
namespace detail {

bool solve_view_pose(iCalibBoardRecognizer& recognizer, const DistortCamera& cam,
                     const std::vector<cv::Point2f>& markers, cv::Vec3d& rvec, cv::Vec3d& tvec) {
  std::vector<cv::Point3f> board;
  std::vector<cv::Point2f> image;
  const int n = std::min<int>(recognizer.get_marker_range().area(), int(markers.size()));
  for (int k = 0; k < n; ++k) {
    if (missing_marker(markers[k])) continue;
    board.push_back(recognizer.get_3d_position(k));
    image.push_back(markers[k]);
  }
  if (board.size() < 4) return false;
  cv::Mat r, t;
  if (!cv::solvePnP(board, image, cv::Mat(cam.K), cv::Mat(cam.D), r, t)) return false;
  rvec = cv::Vec3d(r);
  tvec = cv::Vec3d(t);
  return true;
}

}  // namespace detail
}  // namespace sl3d
