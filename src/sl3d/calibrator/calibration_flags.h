#ifndef SL3D_CALIBRATOR_CALIBRATION_FLAGS_H_
#define SL3D_CALIBRATOR_CALIBRATION_FLAGS_H_

// The lens model a pair calibration should use unless the caller knows
// better: the OpenCV flags for CameraCalibParams::flags.
//
// Measured on rendered calibration sets of both board families (12 views,
// 1280 x 1024), with the true lens free of distortion, mildly and strongly
// distorted: the free five-coefficient model fits k3 to the noise of the
// marker centres (|k3| up to 0.08 for a lens whose k3 is 0 or -0.02) and
// then moves image corners by up to 1.6 px; fixing k3 at 0 keeps the
// corners within 0.3 to 1.5 px at no cost in focal length or principal
// point, while a lens with k3 = -0.035 is still described to 0.012 px of
// focal length. The rational model diverged on half of the sets. Letting
// the stereo step refine both cameras' intrinsics (no CALIB_FIX_INTRINSIC)
// halves the focal-length error, so it stays on.

#include <sl3d/export.h>

namespace sl3d {

// cv::CALIB_FIX_K3 for an ordinary lens; with `wide_angle`,
// cv::CALIB_RATIONAL_MODEL (k1..k6), which only a lens whose distortion
// grows steeply towards the corners needs, and only with views that fill
// the corners.
SL3D_EXPORT int recommended_calibration_flags(bool wide_angle = false);

}  // namespace sl3d

#endif  // SL3D_CALIBRATOR_CALIBRATION_FLAGS_H_
