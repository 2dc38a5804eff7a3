// Writes the virtual sensor's true calibration directory (both stored forms
// and the camera files) into the directory given on the command line, for
// readers outside this library to check.

#include <cstdio>

#include <sl3d/sim/sim_calibration.h>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: calibration_fixture DIR\n");
    return 2;
  }
  sl3d::SimRig rig = sl3d::SimRig::scaled(64, 48);
  return sl3d::write_calibration_directory(sl3d::default_raw_cameras(rig), argv[1]) ? 0 : 1;
}
