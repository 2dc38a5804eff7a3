#include <sl3d/calibrator/precise_calibration.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibrator/view_pose.h>

namespace sl3d {

namespace {

using Observations = std::vector<std::vector<std::vector<cv::Point2f>>>;

std::string check_arguments(const StereoCalib& calib, const std::vector<std::vector<cv::Mat>>& images,
                            const Observations& points, const std::vector<DistortCamera>& cams,
                            const std::vector<std::vector<double>>& errors,
                            const PreciseCalibrationOptions& options) {
  if (calib.recognizer == nullptr) return "the calibration driver has no recognizer";
  if (cams.size() < 2 || points.size() < 2 || errors.size() < 2) {
    return "cams, points and errors need two entries each";
  }
  if (options.remeasure) {
    if (images.size() < 2) return "images need two entries";
    for (int c = 0; c < 2; ++c)
      if (images[c].size() != points[c].size()) return "images and points differ in shape";
  }
  if (options.refine &&
      !(options.refinement.circle_radius > 0.0 && std::isfinite(options.refinement.circle_radius)))
    return "the circle radius must be positive";
  return std::string();
}

// Re-measures every recognised view in place; false (with `message`) when
// an image was unusable.
bool remeasure(StereoCalib& calib, const std::vector<std::vector<cv::Mat>>& images,
               Observations& points, const MarkerCentreOptions& options,
               PreciseCalibration& result) {
  const cv::Size grid = calib.recognizer->get_marker_range().size();
  double shift_sum = 0.0, residual_sum = 0.0;
  for (int c = 0; c < 2; ++c) {
    for (std::size_t v = 0; v < points[c].size(); ++v) {
      if (points[c][v].empty()) continue;
      const MarkerCentreReport report =
          measure_marker_centres(images[c][v], grid, points[c][v], options);
      if (!report.ok) {
        result.message = "camera " + std::to_string(c) + ", view " + std::to_string(v) + ": " +
                         report.message;
        return false;
      }
      result.remeasured += report.remeasured;
      result.unmeasured += report.unmeasured;
      shift_sum += report.mean_shift_px * report.remeasured;
      residual_sum += report.mean_residual_px * report.remeasured;
      result.max_shift_px = std::max(result.max_shift_px, report.max_shift_px);
    }
  }
  if (result.remeasured > 0) {
    result.mean_shift_px = shift_sum / result.remeasured;
    result.mean_residual_px = residual_sum / result.remeasured;
  }
  return true;
}

// RMS distance, pixels, between the right image's markers of each view and
// where the board pose solved from the left image puts them through the
// calibrated pair; NaN where a side has fewer than four markers. A view
// whose two images number the markers differently (one recognizer result
// counted from another base marker) is off by whole spacings here, while
// each image alone fits its camera.
std::vector<double> stereo_view_errors(iCalibBoardRecognizer& recognizer,
                                       const std::vector<DistortCamera>& cams,
                                       const Observations& points) {
  const int markers = recognizer.get_marker_range().area();
  const cv::Matx33d world_from_cam0 = cv::Matx33d(cams[0].R).t();
  const cv::Vec3d cam0_in_world = -(world_from_cam0 * cv::Vec3d(cv::Mat_<double>(cams[0].T)));
  std::vector<double> view_errors(points[0].size(), std::numeric_limits<double>::quiet_NaN());
  for (std::size_t v = 0; v < points[0].size() && v < points[1].size(); ++v) {
    const std::vector<cv::Point2f>& left = points[0][v];
    const std::vector<cv::Point2f>& right = points[1][v];
    cv::Vec3d rvec, tvec;
    if (!detail::solve_view_pose(recognizer, cams[0], left, rvec, tvec)) continue;
    cv::Matx33d cam0_from_board;
    cv::Rodrigues(rvec, cam0_from_board);
    double sum = 0.0;
    int count = 0;
    const int n = std::min({markers, int(left.size()), int(right.size())});
    for (int k = 0; k < n; ++k) {
      if (detail::missing_marker(left[k]) || detail::missing_marker(right[k])) continue;
      const cv::Point3f b = recognizer.get_3d_position(k);
      const cv::Vec3d world = world_from_cam0 * (cam0_from_board * cv::Vec3d(b.x, b.y, b.z) + tvec) +
                              cam0_in_world;
      const cv::Point2d d = cams[1].project_forw({world[0], world[1], world[2]}) -
                            cv::Point2d(right[k]);
      sum += d.dot(d);
      ++count;
    }
    if (count >= 4) view_errors[v] = std::sqrt(sum / count);
  }
  return view_errors;
}

// Views whose error (stereo_view_errors) exceeds both `floor_px` and ten
// times the median view's. A wrongly numbered view drags the whole
// calibration, so the good views' errors grow too, but stay well apart.
std::vector<int> inconsistent_views(const std::vector<double>& view_errors, double floor_px) {
  std::vector<double> finite;
  for (double e : view_errors)
    if (std::isfinite(e)) finite.push_back(e);
  if (finite.size() < 3) return {};
  std::nth_element(finite.begin(), finite.begin() + finite.size() / 2, finite.end());
  const double limit = std::max(floor_px, 10.0 * finite[finite.size() / 2]);
  std::vector<int> views;
  for (std::size_t v = 0; v < view_errors.size(); ++v)
    if (view_errors[v] > limit) views.push_back(int(v));
  return views;
}

// Leaves out, in both images, every view inconsistent_views finds and
// calibrates again, until none is left; false when a calibration fails.
bool leave_out_inconsistent_views(StereoCalib& calib, std::vector<DistortCamera>& cams,
                                  Observations& observations,
                                  std::vector<std::vector<double>>& errors, double floor_px,
                                  PreciseCalibration& result) {
  for (;;) {
    const std::vector<double> view_errors =
        stereo_view_errors(*calib.recognizer, cams, observations);
    const std::vector<int> views = inconsistent_views(view_errors, floor_px);
    if (views.empty()) return true;
    for (int v : views) {
      result.left_out.push_back({v, view_errors[v]});
      observations[0][v].clear();
      observations[1][v].clear();
    }
    result.code = calib.exec(cams, observations, errors, &result.first_rms);
    if (result.code != 0) return false;
  }
}

PreciseCalibration calibrate(StereoCalib& calib, const std::vector<std::vector<cv::Mat>>& images,
                             const Observations& points, std::vector<DistortCamera>& cams,
                             std::vector<std::vector<double>>& errors,
                             const PreciseCalibrationOptions& options) {
  PreciseCalibration result;
  result.message = check_arguments(calib, images, points, cams, errors, options);
  if (!result.message.empty()) return result;
  Observations observations = points;
  if (options.remeasure && !remeasure(calib, images, observations, options.centres, result))
    return result;
  result.code = calib.exec(cams, observations, errors, &result.first_rms);
  if (result.code != 0) return result;
  if (options.view_outlier_px > 0.0 &&
      !leave_out_inconsistent_views(calib, cams, observations, errors, options.view_outlier_px,
                                    result)) {
    return result;
  }
  result.points = observations;
  if (!options.refine) return result;
  CentreRefinementOptions refinement = options.refinement;
  refinement.outline_centre =
      options.remeasure ? OutlineCentre::kEllipseFit : OutlineCentre::kContourMean;
  result.refinement = refine_stereo_calibration(calib, cams, observations, errors, refinement);
  result.code = result.refinement.code;
  result.message = result.refinement.message;
  if (!result.refinement.corrected_points.empty()) result.points = result.refinement.corrected_points;
  return result;
}

}  // namespace

PreciseCalibration calibrate_stereo_precisely(StereoCalib& calib,
                                              const std::vector<std::vector<cv::Mat>>& images,
                                              const Observations& points,
                                              std::vector<DistortCamera>& cams,
                                              std::vector<std::vector<double>>& errors,
                                              const PreciseCalibrationOptions& options) {
  try {
    return calibrate(calib, images, points, cams, errors, options);
  } catch (const std::exception& e) {
    PreciseCalibration failed;
    failed.code = 4;
    failed.message = e.what();
    return failed;
  }
}

}  // namespace sl3d
