#include <sl3d/calibrator/calibrator.h>

#include <limits>
#include <new>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>

namespace {

// A view needs this many correspondences to take part in intrinsic
// calibration; fewer cannot constrain a homography plus distortion.
constexpr std::size_t kMinIntrinsicPoints = 5;

// The intrinsic run is bounded by its iteration count alone: the epsilon is
// the double-precision machine epsilon, which the solver never reaches.
const cv::TermCriteria kIntrinsicCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 30,
                                          2.220446049250313e-16);
const cv::TermCriteria kStereoCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 30, 1e-6);

iCalibBoardRecognizer* make_recognizer(int board_type) {
  if (board_type != 0) return new QuillCalibBoardRecognizer();
  return new PelluxCalibBoardRecognizer();
}

// Views paired with the board: object points and image points per used view.
struct IntrinsicViews {
  std::vector<std::vector<cv::Point3f>> object;
  std::vector<std::vector<cv::Point2f>> image;
  std::vector<bool> used;  // per input image
};

IntrinsicViews gather_intrinsic_views(iCalibBoardRecognizer& recognizer,
                                      const std::vector<std::vector<cv::Point2f>>& points) {
  IntrinsicViews views;
  for (const std::vector<cv::Point2f>& markers : points) {
    std::vector<cv::Point2f> out2d;
    std::vector<cv::Point3f> out3d;
    recognizer.corresponding_points(markers, out2d, out3d);
    const bool usable = out2d.size() >= kMinIntrinsicPoints;
    views.used.push_back(usable);
    if (!usable) continue;
    views.image.push_back(std::move(out2d));
    views.object.push_back(std::move(out3d));
  }
  return views;
}

// One entry per input image: the view's error when it was used, else NaN.
std::vector<double> errors_per_image(const std::vector<bool>& used, const cv::Mat& per_view) {
  std::vector<double> errors;
  int view = 0;
  for (bool u : used) {
    errors.push_back(u ? per_view.at<double>(view++)
                       : std::numeric_limits<double>::quiet_NaN());
  }
  return errors;
}

// The intrinsic guess: a square-pixel focal length at the image centre.
int apply_intrinsic_guess(DistortCamera& cam, double focal_length, int flags) {
  if (!(flags & cv::CALIB_USE_INTRINSIC_GUESS)) return flags;
  if (focal_length == 0.0) return flags & ~cv::CALIB_USE_INTRINSIC_GUESS;
  cam.K(0, 0) = focal_length;
  cam.K(1, 1) = focal_length;
  cam.K(0, 2) = cam.size.width * 0.5;
  cam.K(1, 2) = cam.size.height * 0.5;
  return flags;
}

struct StereoViews {
  std::vector<std::vector<cv::Point3f>> object;
  std::vector<std::vector<cv::Point2f>> left;
  std::vector<std::vector<cv::Point2f>> right;
};

// Views by index over the common prefix of both lists. One shared marker is
// enough to use a view.
StereoViews gather_stereo_views(iCalibBoardRecognizer& recognizer,
                                const std::vector<std::vector<cv::Point2f>>& left,
                                const std::vector<std::vector<cv::Point2f>>& right) {
  StereoViews views;
  for (std::size_t i = 0; i < left.size() && i < right.size(); ++i) {
    if (left[i].empty() || right[i].empty()) continue;
    std::vector<cv::Point2f> out0, out1;
    std::vector<cv::Point3f> out3d;
    recognizer.corresponding_points(left[i], right[i], out0, out1, out3d);
    if (out3d.empty()) continue;
    views.object.push_back(std::move(out3d));
    views.left.push_back(std::move(out0));
    views.right.push_back(std::move(out1));
  }
  return views;
}

}  // namespace

CameraCalib::CameraCalib(int board_type) : board_type(board_type) {}

CameraCalib::~CameraCalib() { delete recognizer; }

bool CameraCalib::set_parameters(CameraCalibParams& cp, CalibBoardParams& board,
                                 CircleMarkerParams& marker, PreProcParams& pre) {
  delete recognizer;
  recognizer = nullptr;
  recognizer = make_recognizer(board_type);
  if (!recognizer->set_parameters(pre, marker, board)) return false;
  param0 = cp.param0;
  param1 = cp.param1;
  focal_length = cp.focal_length;
  flags = cp.flags;
  return true;
}

bool CameraCalib::calib_intrinsic(DistortCamera& cam,
                                  std::vector<std::vector<cv::Point2f>>& points,
                                  std::vector<double>& errors, double* rms) {
  if (recognizer == nullptr) return false;
  cam.size = recognizer->image_size();
  const IntrinsicViews views = gather_intrinsic_views(*recognizer, points);
  if (views.image.empty()) return false;

  const int f = apply_intrinsic_guess(cam, focal_length, flags);
  cv::Mat per_view_errors;
  std::vector<cv::Mat> rvecs, tvecs;
  const double result =
      cv::calibrateCamera(views.object, views.image, cam.size, cam.K, cam.D, rvecs, tvecs,
                          cv::noArray(), cv::noArray(), per_view_errors, f, kIntrinsicCriteria);
  if (rms != nullptr) *rms = result;
  errors = errors_per_image(views.used, per_view_errors);
  cam.compose();
  return true;
}

bool StereoCalib::calib_extrinsic(std::vector<DistortCamera>& cams,
                                  std::vector<std::vector<std::vector<cv::Point2f>>>& points,
                                  int flags, double* rms) {
  if (recognizer == nullptr || cams.size() < 2 || points.size() < 2) return false;
  const StereoViews views = gather_stereo_views(*recognizer, points[0], points[1]);
  if (views.object.empty()) return false;

  DistortCamera& left = cams[0];
  DistortCamera& right = cams[1];
  const double result = cv::stereoCalibrate(
      views.object, views.left, views.right, left.K, left.D, right.K, right.D,
      recognizer->image_size(), right.R, right.T, cv::noArray(), cv::noArray(), flags,
      kStereoCriteria);
  if (rms != nullptr) *rms = result;
  left.compose();
  right.compose();
  return true;
}

int StereoCalib::exec(std::vector<DistortCamera>& cams,
                      std::vector<std::vector<std::vector<cv::Point2f>>>& points,
                      std::vector<std::vector<double>>& errors, double* rms) {
  if (cams.size() < 2 || points.size() < 2 || errors.size() < 2) return 1;
  if (!calib_intrinsic(cams[0], points[0], errors[0], nullptr)) return 1;
  if (!calib_intrinsic(cams[1], points[1], errors[1], nullptr)) return 1;
  return calib_extrinsic(cams, points, flags, rms) ? 0 : 2;
}
