#ifndef SL3D_BENCH_BENCH_CAPTURES_H_
#define SL3D_BENCH_BENCH_CAPTURES_H_

// Rendered captures shared by the benchmarks, made once per image size.

#include <map>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace bench {

struct Captures {
  std::vector<cv::Mat> phase_shift[2];
  cv::Mat textured[2];
  SimGroundTruth truth;
};

// The default scene seen by a rig of the given size (focal length scaled
// with the width so the scene fills the view alike).
inline const Captures& captures(int width, int height) {
  static std::map<std::pair<int, int>, Captures> cache;
  auto it = cache.find({width, height});
  if (it != cache.end()) return it->second;
  cv::setNumThreads(1);
  SimRig rig = SimRig::scaled(width, height);
  const VirtualSensor sensor(rig);
  Captures c;
  for (int camera = 0; camera < 2; ++camera) {
    c.phase_shift[camera] = sensor.render_phase_shift(camera);
    c.textured[camera] = sensor.render_textured(camera);
  }
  c.truth = sensor.ground_truth();
  return cache.emplace(std::make_pair(width, height), std::move(c)).first->second;
}

}  // namespace bench
}  // namespace sl3d

#endif  // SL3D_BENCH_BENCH_CAPTURES_H_
