#include "fuzz_util.h"

#include <cstdlib>

#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d_fuzz {

const std::string& good_calibration() {
  static const std::string dir = [] {
    const fs::path d = scratch() / "good_calib";
    fs::create_directories(d);
    const sl3d::SimRig rig = sl3d::SimRig::scaled(kCalibWidth, kCalibHeight);
    if (!sl3d::write_calibration_directory(sl3d::default_raw_cameras(rig), d.string())) {
      std::abort();
    }
    return d.string();
  }();
  return dir;
}

}  // namespace sl3d_fuzz
