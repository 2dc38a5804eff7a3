// Rectification map records (rect0.map) and pair tables (rect.param). The
// first byte picks the reader, the next two the cameras' image size.
#include <sstream>

#include <sl3d/camera/camera_undistort.h>
#include <sl3d/camera/rectify_map_io.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  std::istringstream in(std::string(reinterpret_cast<const char*>(data) + 3, size - 3));
  if (data[0] % 2 == 0) {
    cv::Mat map1, map2;
    if (load_map(in, map1)) load_map(in, map2);
  } else {
    const cv::Size cam_size(1 + data[1] % 64, 1 + data[2] % 64);
    UndistortCamera cams[2] = {UndistortCamera(cam_size, "L"), UndistortCamera(cam_size, "R")};
    LoadRectifyTables(cams, in);
  }
  return 0;
}
