// End to end: the virtual sensor renders captures of a scene whose depth is
// known, the phase-shift generator measures them through the exported
// interface, and the points are compared with the truth (block matching is
// checked against the same truth by its own test and through the tool).

#include <gtest/gtest.h>

#include <sl3d/psft/psft.h>

#include "e2e_util.h"

namespace sl3d {
namespace {

using testing::depth_error;
using testing::DepthError;

SimRig small_rig() {
  SimRig rig = SimRig::scaled(640, 512);
  return rig;
}

struct Measured {
  int points = 0;
  DepthError error;
};

Measured measure_phase_shift(const VirtualSensor& sensor, const SimLight& light,
                             const PhaseShiftParams* params = nullptr) {
  const SimGroundTruth truth = sensor.ground_truth();
  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  EXPECT_TRUE(gen->init(sensor.rig().width, sensor.rig().height));
  EXPECT_TRUE(gen->set_camera_params(truth.q.data()));
  PhaseShiftParams defaults;
  gen->setparams(const_cast<PhaseShiftParams*>(params ? params : &defaults));
  testing::hand_in_phase_shift(*gen, sensor.render_phase_shift(0, light),
                               sensor.render_phase_shift(1, light));
  gen->exec();
  Measured m;
  m.points = gen->genPC(0);
  m.error = depth_error(*gen, truth.depth);
  gen->destroy();
  return m;
}

TEST(PhaseShiftEndToEnd, MeasuresTheSceneWithinAboutOneMillimetre) {
  const VirtualSensor sensor(small_rig());
  const Measured m = measure_phase_shift(sensor, SimLight());
  const int pixels = 640 * 512;
  std::printf("phase shift: %d points, rms %.3f mm, p95 %.3f mm, gross %d\n", m.points,
              m.error.rms, m.error.p95, m.error.gross);
  EXPECT_GT(m.points, pixels * 6 / 10);
  EXPECT_EQ(m.error.compared, m.points);
  // 1 mm is about 0.07 px of disparity here. The gross errors are camera-0
  // pixels near the left border whose true match lies outside camera 1's
  // view: the nearest phase within the accepted difference is taken anyway.
  EXPECT_LT(m.error.p95, 2.5);
  EXPECT_LT(m.error.gross, m.points / 100);
}

TEST(PhaseShiftEndToEnd, SurvivesBlurNoiseAndLowContrast) {
  const VirtualSensor sensor(small_rig());
  SimLight light;
  light.blur_sigma_px = 1.0;
  light.noise_sigma = 3.0;
  light.ambient = 60.0;
  light.projector_gain = 120.0;
  const Measured m = measure_phase_shift(sensor, light);
  std::printf("phase shift, harsh light: %d points, rms %.3f mm, p95 %.3f mm, gross %d\n",
              m.points, m.error.rms, m.error.p95, m.error.gross);
  // Noise of 3 grey levels on a 120-level modulation: about 0.15 px of
  // disparity noise. A broken unwrap would show as many gross errors.
  EXPECT_GT(m.points, 640 * 512 / 2);
  EXPECT_LT(m.error.p95, 10.0);
  EXPECT_LT(m.error.gross, m.points / 33);
}

}  // namespace
}  // namespace sl3d
