// The pair's YAML file (stereo_param.yaml) beside good map files.
#include <sl3d/camera/stereo_camera.h>

#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const sl3d_fuzz::fs::path dir = [] {
    const sl3d_fuzz::fs::path d = sl3d_fuzz::scratch() / "stereo";
    sl3d_fuzz::fs::create_directories(d);
    for (const char* map : {"rect0.map", "rect1.map"}) {
      sl3d_fuzz::fs::copy_file(sl3d_fuzz::fs::path(sl3d_fuzz::good_calibration()) / map, d / map);
    }
    return d;
  }();
  sl3d_fuzz::write_file(dir / "stereo_param.yaml", data, size);
  StereoCamera pair(cv::Size(0, 0));
  pair.load(dir.string());
  return 0;
}
