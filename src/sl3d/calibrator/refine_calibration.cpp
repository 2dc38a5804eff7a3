#include <sl3d/calibrator/refine_calibration.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibrator/conic_fit.h>
#include <sl3d/calibrator/view_pose.h>

namespace sl3d {

namespace {

using Observations = std::vector<std::vector<std::vector<cv::Point2f>>>;

cv::Point2d not_a_point() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  return cv::Point2d(nan, nan);
}

// Mean of the pixels of an 8-connected contour along the closed polygon:
// a stretch spans as many contour pixels as the larger of its x and y
// extents, and those pixels lie around its middle.
cv::Point2d contour_mean(const std::vector<cv::Point2d>& polygon) {
  cv::Point2d sum(0, 0);
  double weight = 0.0;
  for (std::size_t i = 0; i < polygon.size(); ++i) {
    const cv::Point2d& a = polygon[i];
    const cv::Point2d& b = polygon[(i + 1) % polygon.size()];
    const double w = std::max(std::fabs(b.x - a.x), std::fabs(b.y - a.y));
    sum += w * 0.5 * (a + b);
    weight += w;
  }
  return weight > 0.0 ? sum * (1.0 / weight) : not_a_point();
}

cv::Point2d ellipse_centre(const std::vector<cv::Point2d>& outline) {
  detail::Conic conic;
  if (!detail::fit_conic(outline, conic) || !conic.is_ellipse()) return not_a_point();
  return conic.centre();
}

// Board point of marker k in the camera frame lies in front of the camera.
bool in_front(const cv::Matx33d& r, const cv::Vec3d& t, const cv::Point3d& p) {
  return (r * cv::Vec3d(p.x, p.y, p.z) + t)[2] > 0.0;
}

int marker_count(iCalibBoardRecognizer& recognizer) {
  return recognizer.get_marker_range().area();
}

struct OffsetStats {
  double sum = 0.0;
  double max = 0.0;
  int count = 0;
  void add(const cv::Point2d& offset) {
    const double length = std::hypot(offset.x, offset.y);
    sum += length;
    max = std::max(max, length);
    ++count;
  }
};

// `measured` moved by minus each marker's predicted outline offset, with
// the pose solved from `current` (the previous corrections).
std::vector<cv::Point2f> correct_view(iCalibBoardRecognizer& recognizer, const DistortCamera& cam,
                                      const std::vector<cv::Point2f>& measured,
                                      const std::vector<cv::Point2f>& current,
                                      const CentreRefinementOptions& options,
                                      OffsetStats& stats) {
  // A view with fewer than four markers stays uncorrected.
  cv::Vec3d rvec, tvec;
  if (!detail::solve_view_pose(recognizer, cam, current, rvec, tvec)) return measured;
  std::vector<cv::Point2f> corrected = measured;
  const int n = std::min<int>(marker_count(recognizer), int(measured.size()));
  for (int k = 0; k < n; ++k) {
    if (detail::missing_marker(measured[k])) continue;
    const cv::Point3f centre = recognizer.get_3d_position(k);
    const cv::Point2d offset =
        circle_outline_offset(cv::Mat(cam.K), cv::Mat(cam.D), rvec, tvec, centre,
                              options.circle_radius, options.outline_samples,
                              options.outline_centre);
    if (!std::isfinite(offset.x) || !std::isfinite(offset.y)) continue;
    corrected[k] = cv::Point2f(float(measured[k].x - offset.x), float(measured[k].y - offset.y));
    stats.add(offset);
  }
  return corrected;
}

Observations correct_all(iCalibBoardRecognizer& recognizer, const std::vector<DistortCamera>& cams,
                         const Observations& measured, const Observations& current,
                         const CentreRefinementOptions& options, OffsetStats& stats) {
  Observations corrected = measured;
  for (int c = 0; c < 2; ++c) {
    for (std::size_t v = 0; v < measured[c].size(); ++v) {
      if (measured[c][v].empty()) continue;
      corrected[c][v] =
          correct_view(recognizer, cams[c], measured[c][v], current[c][v], options, stats);
    }
  }
  return corrected;
}

void record_change(const std::vector<DistortCamera>& before,
                   const std::vector<DistortCamera>& after, CentreRefinementStep& step) {
  for (int c = 0; c < 2; ++c) {
    const cv::Mat_<double>& a = before[c].K;
    const cv::Mat_<double>& b = after[c].K;
    const double change[4] = {b(0, 0) - a(0, 0), b(1, 1) - a(1, 1), b(0, 2) - a(0, 2),
                              b(1, 2) - a(1, 2)};
    for (int i = 0; i < 4; ++i) {
      step.intrinsics_change[c][i] = change[i];
      step.intrinsics_change_px = std::max(step.intrinsics_change_px, std::fabs(change[i]));
    }
  }
}

std::string check_arguments(const std::vector<DistortCamera>& cams, const Observations& points,
                            const std::vector<std::vector<double>>& errors,
                            const StereoCalib& calib, const CentreRefinementOptions& options) {
  if (calib.recognizer == nullptr) return "the calibration driver has no recognizer";
  if (cams.size() < 2 || points.size() < 2 || errors.size() < 2) {
    return "cams, points and errors need two entries each";
  }
  if (!(options.circle_radius > 0.0) || !std::isfinite(options.circle_radius)) {
    return "the circle radius must be positive";
  }
  if (options.max_iterations < 1) return "max_iterations must be at least 1";
  if (options.outline_samples < 8) return "outline_samples must be at least 8";
  for (int c = 0; c < 2; ++c) {
    if (cams[c].K.rows != 3 || cams[c].K.cols != 3) return "the cameras are not calibrated";
  }
  return std::string();
}

// One recalibration from `corrected`; the driver's code, or 4 when it threw.
int recalibrate(StereoCalib& calib, std::vector<DistortCamera>& cams, Observations& corrected,
                std::vector<std::vector<double>>& errors, double& rms, std::string& message) {
  try {
    return calib.exec(cams, corrected, errors, &rms);
  } catch (const std::exception& e) {
    message = e.what();
    return 4;
  }
}

CentreRefinement refine(StereoCalib& calib, std::vector<DistortCamera>& cams,
                        const Observations& points, std::vector<std::vector<double>>& errors,
                        const CentreRefinementOptions& options) {
  CentreRefinement result;
  result.message = check_arguments(cams, points, errors, calib, options);
  if (!result.message.empty()) return result;
  result.code = 0;
  Observations current = points;
  std::vector<DistortCamera> good = cams;
  for (int i = 0; i < options.max_iterations && !result.converged; ++i) {
    OffsetStats stats;
    Observations corrected = correct_all(*calib.recognizer, good, points, current, options, stats);
    std::vector<DistortCamera> trial = good;
    std::vector<std::vector<double>> trial_errors = errors;
    CentreRefinementStep step;
    result.code = recalibrate(calib, trial, corrected, trial_errors, step.rms, result.message);
    if (result.code != 0) break;
    record_change(good, trial, step);
    if (!result.steps.empty() &&
        step.intrinsics_change_px > result.steps.back().intrinsics_change_px) {
      // Each step should move the cameras less than the one before; one
      // that moves them more is chasing noise. Keep the calibration before.
      result.message = "the cameras moved more than in the step before; stopped there";
      break;
    }
    step.mean_offset_px = stats.count > 0 ? stats.sum / stats.count : 0.0;
    step.max_offset_px = stats.max;
    result.steps.push_back(step);
    result.converged = step.intrinsics_change_px <= options.tolerance_px;
    good = trial;
    errors = trial_errors;
    current = corrected;
  }
  cams = good;
  result.corrected_points = current;
  return result;
}

}  // namespace

cv::Point2d circle_outline_offset(const cv::Mat& K, const cv::Mat& D, const cv::Vec3d& rvec,
                                  const cv::Vec3d& tvec, const cv::Point3d& centre,
                                  double radius, int samples, OutlineCentre measure) {
  if (!(radius > 0.0) || samples < 8 || K.rows != 3 || K.cols != 3) return not_a_point();
  try {
    cv::Matx33d r;
    cv::Rodrigues(rvec, r);
    std::vector<cv::Point3d> board;
    board.reserve(std::size_t(samples) + 1);
    board.push_back(centre);
    for (int i = 0; i < samples; ++i) {
      const double t = 2.0 * CV_PI * i / samples;
      board.emplace_back(centre.x + radius * std::cos(t), centre.y + radius * std::sin(t),
                         centre.z);
    }
    for (const cv::Point3d& p : board) {
      if (!in_front(r, tvec, p)) return not_a_point();
    }
    std::vector<cv::Point2d> image;
    cv::projectPoints(board, rvec, tvec, K, D, image);
    const std::vector<cv::Point2d> outline(image.begin() + 1, image.end());
    const cv::Point2d centre = measure == OutlineCentre::kEllipseFit ? ellipse_centre(outline)
                                                                     : contour_mean(outline);
    return centre - image.front();
  } catch (const std::exception&) {
    return not_a_point();
  }
}

CentreRefinement refine_stereo_calibration(StereoCalib& calib, std::vector<DistortCamera>& cams,
                                           const Observations& points,
                                           std::vector<std::vector<double>>& errors,
                                           const CentreRefinementOptions& options) {
  try {
    return refine(calib, cams, points, errors, options);
  } catch (const std::exception& e) {
    CentreRefinement failed;
    failed.code = 4;
    failed.message = e.what();
    return failed;
  }
}

}  // namespace sl3d
