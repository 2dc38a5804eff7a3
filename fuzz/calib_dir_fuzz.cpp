// The calibration-directory loader: one file of a good directory replaced
// by the input (the first byte picks which), then a generator's
// set_camera_params(dir) and the tool's file-by-file inspection.
#include <sl3d/pointcloud/PointCloudGenerator.h>

#include "../src/sl3d/cli/calib.h"
#include "fuzz_util.h"

namespace {

const char* const kFiles[] = {"hmat0.dat",       "hmat1.dat",       "rect.param",
                              "cam0_param.yaml", "cam1_param.yaml", "stereo_param.yaml",
                              "rect0.map",       "rect1.map"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  namespace fs = sl3d_fuzz::fs;
  const fs::path dir = sl3d_fuzz::scratch() / "calib";
  fs::remove_all(dir);
  fs::copy(sl3d_fuzz::good_calibration(), dir);
  sl3d_fuzz::write_file(dir / kFiles[data[0] % 8], data + 1, size - 1);

  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  static_cast<PointCloudGenerator*>(gen)->verbose = 0;
  if (gen->init(sl3d_fuzz::kCalibWidth, sl3d_fuzz::kCalibHeight)) {
    gen->set_camera_params(dir.string().c_str());
  }
  gen->destroy();
  sl3d::inspect_calibration(dir.string(), cv::Size());
  return 0;
}
