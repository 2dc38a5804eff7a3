#ifndef SL3D_CALIBRATOR_CALIBRATOR_H_
#define SL3D_CALIBRATOR_CALIBRATOR_H_

// Calibration drivers: turn board observations into calibrated cameras.
//
// Use CameraCalib to calibrate one camera (intrinsics and lens distortion)
// and StereoCalib to calibrate a pair (each camera, then the right camera's
// pose relative to the left one). Both work on the marker lists a board
// recognizer produced, one list per image; the driver owns that recognizer
// and uses it to pair the lists with the board's 3-D coordinates and to
// learn the image size.
//
//   StereoCalib calib(board_type);           // 0: three-ring family, else one-ring
//   calib.set_parameters(cp, board, marker, pre);
//   for each image: calib.recognizer->recognize(image, points[cam][view]);
//   std::vector<DistortCamera> cams = {DistortCamera(size, "cam0"),
//                                      DistortCamera(size, "cam1")};
//   std::vector<std::vector<double>> errors(2);
//   double rms;
//   if (calib.exec(cams, points, errors, &rms) == 0) ...;   // cams[1].R, T: cam1_from_cam0
//
// An image without a recognition result is an empty marker list; it is left
// out and its reprojection error reported as NaN.
//
// Frames: after StereoCalib the pair's frame is the left camera's. Neither
// driver refreshes a camera's RT/RT_inv (compose() does not), so get_center()
// answers from the pose a camera had before; call setPPM with the composed
// rows to bring them up to date.
//
// Failures are reported only through results: false, or exec's codes. OpenCV
// errors of the calibration itself (too few points for the chosen flags, for
// instance) pass through as cv::Exception. Nothing is printed.
//
// Ownership: a driver owns its recognizer and deletes it; drivers cannot be
// copied. Threads: one driver per thread.

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/camera/camera_distort.h>
#include <sl3d/export.h>

// What the caller sets for a calibration.
struct SL3D_EXPORT CameraCalibParams {
  double param0 = 0.0;        // carried along, unused
  double param1 = 0.0;        // carried along, unused
  // Initial focal length in pixels, used only when `flags` holds
  // cv::CALIB_USE_INTRINSIC_GUESS; 0.0 drops that flag for the intrinsic
  // step (the stereo step still receives it).
  double focal_length = 0.0;
  // OpenCV calibration flags (cv::CALIB_*), given to cv::calibrateCamera
  // and to cv::stereoCalibrate alike.
  std::int32_t flags = 0;
};

class SL3D_EXPORT CameraCalib {
 public:
  // board_type: 0 recognises the three-ring board family
  // (PelluxCalibBoardRecognizer), anything else the one-ring family
  // (QuillCalibBoardRecognizer). No recognizer exists until set_parameters.
  explicit CameraCalib(int board_type = 0);
  ~CameraCalib();
  CameraCalib(const CameraCalib&) = delete;
  CameraCalib& operator=(const CameraCalib&) = delete;

  // Replaces the recognizer by a new one of the board family with default
  // parameters and hands it (pre, marker, board). When the recognizer
  // refuses them, returns false: the new recognizer stays, `cp` is not
  // copied. Otherwise copies `cp` and returns true.
  bool set_parameters(CameraCalibParams& cp, CalibBoardParams& board, CircleMarkerParams& marker,
                      PreProcParams& pre);

  // Calibrates `cam` in place from one marker list per image:
  //   cam.size = recognizer->image_size(); images whose list pairs at least
  //   5 markers with board positions are used, others left out;
  //   K, D = cv::calibrateCamera(used views, flags, 30 iterations);
  //   P = K [R | T] by compose() (R and T unchanged).
  // With cv::CALIB_USE_INTRINSIC_GUESS and focal_length != 0 the guess is
  // K(0,0) = K(1,1) = focal_length, K(0,2) = width / 2, K(1,2) = height / 2,
  // other elements of K as they were.
  // `errors` gets one entry per image: its RMS reprojection error in pixels,
  // NaN when the image was left out. `rms` (may be null) gets the overall RMS.
  // False, with only cam.size changed, when no image is usable or no
  // recognizer exists.
  bool calib_intrinsic(DistortCamera& cam, std::vector<std::vector<cv::Point2f>>& points,
                       std::vector<double>& errors, double* rms);

  iCalibBoardRecognizer* recognizer = nullptr;  // owned
  double param0 = 0.0;
  double param1 = 0.0;
  double focal_length = 0.0;
  std::int32_t flags = 0;
  int board_type = 0;
};

class SL3D_EXPORT StereoCalib : public CameraCalib {
 public:
  explicit StereoCalib(int board_type = 0) : CameraCalib(board_type) {}

  // Calibrates cams[1]'s pose relative to cams[0] (cams[1].R, T become
  // cam1_from_cam0) with cv::stereoCalibrate(`flags`, 30 iterations,
  // epsilon 1e-6); depending on `flags` both cameras' K and D are refined
  // too. Views are taken by index from the common prefix of points[0] and
  // points[1]; a view is used when both lists are non-empty and share at
  // least one marker. Both cameras are composed; cams[0]'s R, T are kept.
  // `rms` (may be null) gets the RMS reprojection error over both cameras.
  // False, nothing changed, when no view is usable, no recognizer exists
  // or cams or points hold fewer than two entries.
  bool calib_extrinsic(std::vector<DistortCamera>& cams,
                       std::vector<std::vector<std::vector<cv::Point2f>>>& points, int flags,
                       double* rms);

  // The whole pair: calib_intrinsic of cams[0] with points[0] into
  // errors[0], then of cams[1] with points[1] into errors[1], then
  // calib_extrinsic with the stored flags. Returns 0 on success, 1 when an
  // intrinsic calibration failed (the left one failing leaves the right
  // camera untouched), 2 when the stereo calibration failed. Only the
  // stereo RMS reaches `rms`. Fewer than two entries in cams, points or
  // errors count as a failed intrinsic calibration (1), nothing changed.
  int exec(std::vector<DistortCamera>& cams,
           std::vector<std::vector<std::vector<cv::Point2f>>>& points,
           std::vector<std::vector<double>>& errors, double* rms);
};

#endif  // SL3D_CALIBRATOR_CALIBRATOR_H_
