// Camera files (cam0_param.yaml): the camera-file factory reads both
// cameras from the one file.
#include <sl3d/camera/stereo_camera.h>

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string path = sl3d_fuzz::write_scratch("cam_param.yaml", data, size);
  delete create_StereoCamera({path}, cv::Size(64, 48), -1.0, 0, cv::Scalar(), cv::Scalar());
  return 0;
}
