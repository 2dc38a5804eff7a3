// Projection records ("hmat0.dat"): one record, then the binary form's
// factory with it as both cameras (the tables missing).
#include <sl3d/camera/stereo_camera.h>

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string path = sl3d_fuzz::write_scratch("hmat.dat", data, size);
  PinHoleCamera camera(cv::Size(0, 0), "fuzz");
  std::ifstream in(path, std::ios::binary);
  try {
    camera.load_hmat(in);  // setPPM may refuse a degenerate record: OpenCV's exception
  } catch (const cv::Exception&) {
  }
  delete create_StereoCamera_from_Hmats(path, path, path + ".missing", cv::Size(64, 48),
                                        cv::Scalar(), cv::Scalar());
  return 0;
}
