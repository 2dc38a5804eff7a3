#include <sl3d/pointcloud/verbose.h>

namespace sl3d {

bool set_verbose(iPointCloudGenerator* gen, bool on) {
  auto* generator = dynamic_cast<PointCloudGenerator*>(gen);
  if (generator == nullptr) return false;
  generator->verbose = on ? 1 : 0;
  return true;
}

bool is_verbose(const iPointCloudGenerator* gen) {
  const auto* generator = dynamic_cast<const PointCloudGenerator*>(gen);
  return generator != nullptr && generator->verbose != 0;
}

}  // namespace sl3d
