#ifndef SL3D_SIM_SIM_CALIBRATION_H_
#define SL3D_SIM_SIM_CALIBRATION_H_

// Calibration files of the virtual sensor's true cameras, so that a
// measuring pipeline can be tested from raw captures with a calibration
// whose every number is known.

#include <array>
#include <string>

#include <opencv2/core.hpp>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/export.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {

// The two cameras as a calibration delivers them: camera 0 named "cam0" with
// the identity pose, camera 1 named "cam1" with its pose relative to
// camera 0 (cam1_from_cam0), each with its intrinsics and distortion.
// `out` must point to two cameras.
SL3D_EXPORT void calibrated_pair(const std::array<SimCamera, 2>& cameras, DistortCamera* out);

// cam0_from_world of the true camera 0: the rotation that takes world
// coordinates into the frame the calibration calls its own.
SL3D_EXPORT cv::Matx33d cam0_from_world(const std::array<SimCamera, 2>& cameras);

// world_from_rect of a calibration directory `dir` made for `cameras` (or
// from their images): points the generators triangulate through it are in
// its left rectified camera's frame; x_world = R * x_rect + t. The rotation
// comes from the YAML form ("stereo_param.yaml", rectifying rotation
// "cam0_R2"), since the binary form keeps none; t is the true camera 0's
// centre. Returns false, leaving R and t alone, when the directory holds no
// such rotation.
SL3D_EXPORT bool world_from_rect(const std::string& dir, const std::array<SimCamera, 2>& cameras,
                                 cv::Matx33d& world_from_rect_R, cv::Vec3d& world_from_rect_t);

// The left rectified camera of the calibration directory `dir` made for
// `cameras` (or from their images) as a SimCamera: the rectified
// intrinsics, no distortion, oriented by world_from_rect and placed at the
// true camera 0's centre, with the size of the images the calibration was
// made for. Its pixels are those of the range grid of a measurement
// through `dir`; VirtualSensor::measurable_pixels takes it as camera 0.
// False, `out` untouched, as for world_from_rect.
SL3D_EXPORT bool rectified_camera(const std::string& dir, const std::array<SimCamera, 2>& cameras,
                                  SimCamera& out);

// Writes "cam0_param.yaml" and "cam1_param.yaml" into `dir` (which must
// exist). Returns false when a file cannot be written.
SL3D_EXPORT bool write_camera_files(const std::array<SimCamera, 2>& cameras,
                                    const std::string& dir);

// Writes, besides the camera files, the rectified pair in both stored forms:
// "hmat0.dat", "hmat1.dat", "rect.param" and "stereo_param.yaml" with
// "rect0.map", "rect1.map". The rectified images keep the raw size.
SL3D_EXPORT bool write_calibration_directory(const std::array<SimCamera, 2>& cameras,
                                             const std::string& dir);

// How far a calibration of one camera is from the truth. Focal lengths and
// principal point: calibrated minus true, pixels. Pixel map: each pixel of
// a 16-px grid is turned into its true ray (true K and distortion) and
// projected again with the calibrated K and distortion; RMS and largest
// distance to where it started, which is what K and distortion errors
// together do to an image.
struct SL3D_EXPORT CameraCalibrationError {
  double fx = 0.0, fy = 0.0, cx = 0.0, cy = 0.0;
  double pixel_rms = 0.0;
  double pixel_max = 0.0;
};

// A calibrated pair against the true cameras: each camera, the length of
// the baseline (calibrated minus true, in the units of the truth) and the
// angle between the calibrated and the true cam1_from_cam0 rotations.
struct SL3D_EXPORT PairCalibrationError {
  CameraCalibrationError cameras[2];
  double baseline = 0.0;
  double rotation_deg = 0.0;
};

// `calibrated` points to two cameras as StereoCalib leaves them.
SL3D_EXPORT PairCalibrationError calibration_error(const DistortCamera* calibrated,
                                                   const std::array<SimCamera, 2>& truth);

}  // namespace sl3d

#endif  // SL3D_SIM_SIM_CALIBRATION_H_
