#ifndef SL3D_CALIBRATOR_CALIBRATION_DIRECTORY_H_
#define SL3D_CALIBRATOR_CALIBRATION_DIRECTORY_H_

// Writing a calibrated camera pair as the calibration directory the
// generators load (iPointCloudGenerator::set_camera_params(dir)).
//
// Use it after StereoCalib: it rectifies the pair and stores every form the
// loaders know, so the directory works whichever route a reader takes.

#include <string>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/export.h>

namespace sl3d {

// Writes into the existing directory `dir`:
//   "cam0_param.yaml", "cam1_param.yaml"  the calibrated cameras, named
//                                          "cam0" and "cam1";
//   "stereo_param.yaml", "rect0.map", "rect1.map"  the rectified pair;
//   "hmat0.dat", "hmat1.dat", "rect.param"         its binary form.
// cams[0] is the left camera (its pose is the pair's frame), cams[1] the
// right one with R, T = cam1_from_cam0, as StereoCalib leaves them. The
// rectified images keep the raw size (cv::stereoRectify with alpha -1).
// The cameras are written under those names whatever their own names, and
// with RT/RT_inv refreshed from the composed projection; `cams` itself is
// not changed. Every file is read back after writing; returns false when
// a file cannot be written or does not load back whole (a full disk), and
// files written before the failure stay.
SL3D_EXPORT bool store_calibration_directory(const DistortCamera* cams, const std::string& dir);

// Only the two camera files, "cam0_param.yaml" and "cam1_param.yaml", as
// above (read back too): enough for create_StereoCamera, which rectifies on
// loading.
SL3D_EXPORT bool store_camera_files(const DistortCamera* cams, const std::string& dir);

}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_CALIBRATION_DIRECTORY_H_
