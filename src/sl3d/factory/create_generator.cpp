// The factory of the generator interface. It lives apart from the frame so
// that the generators depend on the frame (pointcloud/) and the frame on
// neither of them.

#include <new>

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>

extern "C" iPointCloudGenerator* createPointCloudGenerator(int kind) {
  PointCloudGenerator* gen = nullptr;
  if (kind == 1) {
    gen = new (std::nothrow) SGBMaching();
  } else {
    gen = new (std::nothrow) PhaseShift();
  }
  if (gen != nullptr) gen->verbose = 1;
  return gen;
}
