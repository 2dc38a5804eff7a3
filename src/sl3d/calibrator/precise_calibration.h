#ifndef SL3D_CALIBRATOR_PRECISE_CALIBRATION_H_
#define SL3D_CALIBRATOR_PRECISE_CALIBRATION_H_

// A pair calibration from recognised board views that measures the markers
// again from the images and corrects them for the circle-centre bias.
//
// The recognizer's marker centres scatter by about 0.12 px and sit, under
// perspective, a few tenths of a pixel off the images of the circles'
// centres. Both errors go into the cameras. calibrate_stereo_precisely
// re-measures every marker (measure_marker_centres), calibrates with the
// driver as StereoCalib::exec does, leaves out views whose two images
// disagree about the board's pose and calibrates again, and then refines that calibration for
// the bias (refine_stereo_calibration, with the model of the re-measured
// centre). On rendered views of 1280 x 1024 this brings focal lengths and
// principal points from several tenths of a pixel to within about 0.1 px of
// the truth.
//
//   StereoCalib calib(board_type);
//   calib.set_parameters(cp, board, marker, pre);
//   ... recognise images[cam][view] into points[cam][view] ...
//   PreciseCalibrationOptions options;
//   options.refinement.circle_radius = 12.0;  // board units, as unit_length
//   PreciseCalibration r = calibrate_stereo_precisely(calib, images, points, cams, errors,
//                                                     options);
//   if (r.code == 0) ... cams hold the calibration ...

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/marker_centres.h>
#include <sl3d/calibrator/refine_calibration.h>
#include <sl3d/camera/camera_distort.h>
#include <sl3d/export.h>

namespace sl3d {

struct SL3D_EXPORT PreciseCalibrationOptions {
  // Measure the markers again from the images; false calibrates from the
  // recognizer's centres.
  bool remeasure = true;
  MarkerCentreOptions centres;
  // Refine for the circle-centre bias (needs refinement.circle_radius);
  // false stops after the first calibration. The refinement's
  // outline_centre is chosen to match `remeasure`.
  bool refine = true;
  CentreRefinementOptions refinement;
  // After the first calibration, a view whose right image lies more than
  // this many pixels (RMS), and more than ten times the median view, from
  // where the left image's board pose puts it is left out in both images
  // and the pair calibrated again. Such a view has its markers numbered
  // differently in its two images (a recognizer that counted from another
  // base marker in one of them): each image alone fits its camera, but the
  // pair is pulled by whole spacings. 0 keeps every view.
  double view_outlier_px = 1.0;
};

// A view left out of the calibration and its error, pixels (RMS), at the
// time: see PreciseCalibrationOptions::view_outlier_px.
struct SL3D_EXPORT LeftOutView {
  int view = -1;
  double error_px = 0.0;
};

struct SL3D_EXPORT PreciseCalibration {
  // 0 success; 1 or 2 the code of a StereoCalib::exec that failed; 3 the
  // arguments were unusable; 4 the calibration raised an error. `message`
  // says more for 3 and 4, and notes a refinement stopped early.
  int code = 3;
  std::string message;
  // The re-measurement over all images: markers measured and not, the
  // mean and largest shift, the mean edge residual. Zero without
  // `remeasure`.
  int remeasured = 0;
  int unmeasured = 0;
  double mean_shift_px = 0.0;
  double max_shift_px = 0.0;
  double mean_residual_px = 0.0;
  // Views left out because their two images disagree, in the order found.
  std::vector<LeftOutView> left_out;
  // Stereo RMS reprojection error of the first calibration (after leaving
  // out views), pixels.
  double first_rms = 0.0;
  // The refinement's steps and final observations (empty without `refine`).
  CentreRefinement refinement;
  // The observations the calibration in `cams` was made from.
  std::vector<std::vector<std::vector<cv::Point2f>>> points;
};

// Calibrates the pair from `points` (points[c][v] the recognizer's list for
// images[c][v]; an empty list is a view without a result, as for
// StereoCalib::exec), with `calib` set up and its recognizer having seen the
// images. `images` must have the shape of `points`; each image 8-bit grey.
// `cams` (two cameras) and `errors` (two entries) as for exec. On success
// `cams` hold the final calibration and `errors` its per-image errors; on
// failure `code` says why and `cams` hold the last successful calibration,
// if any. `points` is not changed.
SL3D_EXPORT PreciseCalibration calibrate_stereo_precisely(
    StereoCalib& calib, const std::vector<std::vector<cv::Mat>>& images,
    const std::vector<std::vector<std::vector<cv::Point2f>>>& points,
    std::vector<DistortCamera>& cams, std::vector<std::vector<double>>& errors,
    const PreciseCalibrationOptions& options);

}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_PRECISE_CALIBRATION_H_
