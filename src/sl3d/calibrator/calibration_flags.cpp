#include <sl3d/calibrator/calibration_flags.h>

#include <opencv2/calib3d.hpp>

namespace sl3d {

int recommended_calibration_flags(bool wide_angle) {
  return wide_angle ? cv::CALIB_RATIONAL_MODEL : cv::CALIB_FIX_K3;
}

}  // namespace sl3d
