#ifndef SL3D_CALIBRATOR_VIEW_POSE_H_
#define SL3D_CALIBRATOR_VIEW_POSE_H_

// The board pose of one recognised view, shared by the circle-centre
// refinement and the check that a view's two images agree. Internal.

#include <cfloat>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/camera/camera_distort.h>

namespace sl3d {
namespace detail {

// An entry of a recognizer's marker list that holds no marker.
inline bool missing_marker(const cv::Point2f& p) { return p.x == FLT_MAX; }

// cam_from_board of a view from `markers` (the recognizer's list, indexed
// by marker) through `cam`'s K and D, by cv::solvePnP; false with fewer
// than four markers or when solvePnP fails.
bool solve_view_pose(iCalibBoardRecognizer& recognizer, const DistortCamera& cam,
                     const std::vector<cv::Point2f>& markers, cv::Vec3d& rvec, cv::Vec3d& tvec);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_VIEW_POSE_H_
