#include <sl3d/calibrator/precise_calibration.h>

#include <algorithm>
#include <cmath>
#include <exception>

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
