// The phase-shift generator with arbitrary parameters: the input is the
// parameter block handed to setparams (short inputs keep the defaults for
// the rest), the capture a small rendering of the virtual sensor.
#include <array>
#include <cstring>

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/virtual_sensor.h>

namespace {

constexpr int kWidth = 32, kHeight = 24;

const std::array<std::vector<cv::Mat>, 2>& capture() {
  static const std::array<std::vector<cv::Mat>, 2> frames = [] {
    const sl3d::VirtualSensor sensor(sl3d::SimRig::scaled(kWidth, kHeight));
    return std::array<std::vector<cv::Mat>, 2>{sensor.render_phase_shift(0),
                                               sensor.render_phase_shift(1)};
  }();
  return frames;
}

const std::array<double, 16>& q_matrix() {
  static const std::array<double, 16> q =
      sl3d::VirtualSensor(sl3d::SimRig::scaled(kWidth, kHeight)).ground_truth().q;
  return q;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  PhaseShiftParams params;
  std::memcpy(&params, data, std::min(size, sizeof params));
  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  static_cast<PointCloudGenerator*>(gen)->verbose = 0;
  if (gen->init(kWidth, kHeight) && gen->set_camera_params(q_matrix().data())) {
    gen->setparams(&params);
    for (int camera = 0; camera < 2; ++camera) {
      for (int index = 0; index < 13; ++index) {
        cv::Mat frame = capture()[camera][index];
        gen->setpict(frame.data, frame.step[0], camera, index);
      }
    }
    gen->exec();
    gen->genPC(0);
  }
  gen->destroy();
  return 0;
}
