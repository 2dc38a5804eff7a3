#ifndef SL3D_CALIBRATOR_REFINE_CALIBRATION_H_
#define SL3D_CALIBRATOR_REFINE_CALIBRATION_H_

// Refinement of a pair calibration for the circle-centre bias.
//
// A board recognizer measures a circle marker at the centre of its imaged
// outline. Under perspective, and through a lens with distortion, that
// outline centre is not the image of the circle's centre: the near half of a
// tilted circle looks larger than the far half, so the outline's centre
// lies a little towards the near side. The offset grows with the square of
// the circle's apparent size and with the tilt; for circles 12 mm in radius
// seen from 600 to 1000 mm at 1400 px focal length it reaches a few tenths of
// a pixel, enough to pull focal lengths and principal points by about as
// much. Calibration treats the outline centres as images of the centres, so
// the bias goes straight into the cameras.
//
// Use refine_stereo_calibration after a first StereoCalib::exec: it predicts,
// from that calibration, where each marker's true centre lies relative to
// its outline centre, corrects the observations, calibrates again with the
// same driver and repeats until the cameras stop moving. When the centres
// were measured again with measure_marker_centres (marker_centres.h), set
// outline_centre to OutlineCentre::kEllipseFit; calibrate_stereo_precisely
// (precise_calibration.h) does both steps in one call.
//
//   StereoCalib calib(board_type);
//   calib.set_parameters(cp, board, marker, pre);
//   ... recognise every image into points[cam][view] ...
//   if (calib.exec(cams, points, errors, &rms) == 0) {
//     CentreRefinementOptions options;
//     options.circle_radius = 12.0;   // board units, as unit_length
//     CentreRefinement r = refine_stereo_calibration(calib, cams, points, errors, options);
//     for (const CentreRefinementStep& s : r.steps) print(s.rms, s.intrinsics_change_px);
//   }
//
// Everything here uses plain types and reports failure through its result;
// no exception leaves these functions.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibrator/calibrator.h>
#include <sl3d/camera/camera_distort.h>
#include <sl3d/export.h>

namespace sl3d {

// How the centre of a marker's outline is measured: as the recognizer does
// (the mean of the pixels of its binarised contour) or as
// measure_marker_centres does (the centre of an ellipse fitted to edge
// points spread evenly round the circle on the board). For an outline that
// is an exact ellipse both give its centre; through a distorting lens they
// differ by up to a few hundredths of a pixel, so the model must follow the
// measurement.
enum class OutlineCentre { kContourMean, kEllipseFit };

// Where the outline of a board circle is measured, relative to the image of
// its centre, for a camera (K and distortion D as DistortCamera holds them)
// and the board's pose cam_from_board (Rodrigues rvec, tvec; board points
// (X, Y, 0) in board units). The outline is sampled at `samples` points
// evenly spaced in angle on the board and projected through the full camera
// model. kContourMean takes the mean of the pixels an 8-connected contour of
// it would hold (each stretch of the outline weighted by the number of
// contour pixels it spans, the larger of its x and y extents); kEllipseFit
// the centre of the least-squares ellipse through the samples.
//
//   offset = outline_centre(project(centre + radius (cos t, sin t, 0)))
//            - project(centre)
//
// Returns (NaN, NaN) when the circle is not entirely in front of the camera
// or the arguments make no sense (radius <= 0, samples < 8, K not 3x3).
SL3D_EXPORT cv::Point2d circle_outline_offset(const cv::Mat& K, const cv::Mat& D,
                                              const cv::Vec3d& rvec, const cv::Vec3d& tvec,
                                              const cv::Point3d& centre, double radius,
                                              int samples = 128,
                                              OutlineCentre measure = OutlineCentre::kContourMean);

struct SL3D_EXPORT CentreRefinementOptions {
  // Radius of the board's circles (of the outer outline of a ring marker),
  // in the board's unit (that of unit_length). Required: > 0.
  double circle_radius = 0.0;
  // Recalibrations at most.
  int max_iterations = 6;
  // The cameras have stopped moving when no focal length or principal point
  // of either camera changed by more than this between two calibrations.
  double tolerance_px = 0.002;
  // Outline samples per circle (circle_outline_offset).
  int outline_samples = 128;
  // How the observations' centres were measured: kContourMean for the
  // recognizer's own centres, kEllipseFit after measure_marker_centres.
  OutlineCentre outline_centre = OutlineCentre::kContourMean;
};

// One recalibration.
struct SL3D_EXPORT CentreRefinementStep {
  // Stereo RMS reprojection error of this calibration, pixels.
  double rms = 0.0;
  // Change of each camera's intrinsics against the calibration before it,
  // pixels: by camera, fx, fy, cx, cy.
  double intrinsics_change[2][4] = {{0, 0, 0, 0}, {0, 0, 0, 0}};
  // The largest of those eight changes, in absolute value.
  double intrinsics_change_px = 0.0;
  // Length of the predicted outline offsets of this step's corrections,
  // over every marker of every view of both cameras: mean and largest.
  double mean_offset_px = 0.0;
  double max_offset_px = 0.0;
};

struct SL3D_EXPORT CentreRefinement {
  // 0 success; 1 or 2 the code of a StereoCalib::exec that failed (as exec
  // reports it); 3 the arguments were unusable (see `message`); 4 the
  // calibration raised an error (its text in `message`).
  int code = 3;
  std::string message;
  // True when the last step changed the intrinsics by no more than the
  // tolerance; false when max_iterations ran out first, or when a step
  // moved the cameras more than the one before (that step is dropped, the
  // calibration before it kept, and `message` says so).
  bool converged = false;
  std::vector<CentreRefinementStep> steps;
  // The observations of the last successful calibration: each measured
  // marker moved by minus its predicted outline offset; FLT_MAX entries and
  // empty views as they came.
  std::vector<std::vector<std::vector<cv::Point2f>>> corrected_points;
};

// Refines the pair calibration `cams` (as StereoCalib::exec left it from
// `points`, with `calib` set up as for that exec) for the circle-centre
// bias. Each step: per camera and view, the board pose is solved
// (cv::solvePnP with the camera's K and D) from the currently corrected
// observations; every measured marker k is corrected to
//   points[c][v][k] - circle_outline_offset(cams[c], pose, board position of k);
// then calib.exec(cams, corrected, errors, &rms) calibrates again. Steps
// repeat until the intrinsics change by at most tolerance_px or
// max_iterations steps have run.
//
// `points` is not changed. `errors` receives exec's per-image errors of the
// last successful calibration. On success `cams` hold the last calibration;
// on failure they hold the last successful one (the first calibration when
// no step succeeded) and `code` says why. Views a camera cannot solve a
// pose for (fewer than 4 markers) are passed on uncorrected.
SL3D_EXPORT CentreRefinement refine_stereo_calibration(
    StereoCalib& calib, std::vector<DistortCamera>& cams,
    const std::vector<std::vector<std::vector<cv::Point2f>>>& points,
    std::vector<std::vector<double>>& errors, const CentreRefinementOptions& options);

}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_REFINE_CALIBRATION_H_
