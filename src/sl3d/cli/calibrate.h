#ifndef SL3D_CLI_CALIBRATE_H_
#define SL3D_CLI_CALIBRATE_H_

// Calibrating a camera pair from board images: recognition of every image,
// StereoCalib, a report of what was used and how well it fits, and the
// calibration directory. `sl3d calibrate` and `sl3d demo` share it.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibrator/calibrator.h>
#include <sl3d/camera/camera_distort.h>

#include "board_family.h"
#include "board_params.h"

namespace sl3d {

struct NamedImage {
  std::string name;  // how the report calls it, usually its path
  cv::Mat image;     // CV_8UC1
};

struct CalibrationJob {
  BoardFamily family = BoardFamily::kPellux;
  BoardRecords records;
  CameraCalibParams params;
  // Measure the markers again from the images and refine the calibration
  // for the circle-centre bias (sl3d::calibrate_stereo_precisely); false
  // calibrates from the recognizer's centres alone, as StereoCalib::exec
  // does. The refinement needs the circles' radius (board units); without
  // one the markers are still re-measured and the refinement is skipped.
  bool precise = true;
  double circle_radius = 0.0;
  std::vector<NamedImage> images[2];  // 0 left, 1 right; same index, same moment
};

struct CalibrationResult {
  std::vector<DistortCamera> cams;  // cam0 (left), cam1 (right, pose cam1_from_cam0)
  double stereo_rms = 0.0;
  int stereo_views = 0;
};

// Recognises every image, calibrates the pair (precisely, unless the job
// says otherwise, reporting the re-measurement and each refinement step)
// and prints, per image, the
// recognition code and reprojection error (NaN for an image left out), then
// the cameras and the stereo RMS. Warnings for images left out go to
// stderr. Images must all have the size of the first one. A pair that
// cannot be calibrated is a CliError saying why.
CalibrationResult calibrate_pair(const CalibrationJob& job);

// Writes the calibration directory `dir` whole or not at all.
void write_calibration_directory(const CalibrationResult& result, const std::string& dir);

}  // namespace sl3d

#endif  // SL3D_CLI_CALIBRATE_H_
