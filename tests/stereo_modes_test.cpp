// genPC modes 1 and 2 against the per-point camera functions they replace,
// on a rendered raw capture measured through its calibration directory:
// every record's position from the loops equals, within 1e-9 relative, the
// one from StereoCamera::get3dposition_P, and from get_sight_vector with
// position_from_sv, and both routes agree on which records give a point.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include <unistd.h>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/triangulation.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

namespace fs = std::filesystem;

double relative_gap(const cv::Vec3d& a, const double* b) {
  double worst = 0.0;
  for (int k = 0; k < 3; ++k) {
    worst = std::max(worst, std::fabs(a[k] - b[k]) / std::max(std::fabs(a[k]), 1e-300));
  }
  return worst;
}

TEST(StereoModes, LoopsEqualThePerPointCameraFunctions) {
  const SimRig rig = SimRig::scaled(320, 256);
  const VirtualSensor sensor(rig);
  const std::array<SimCamera, 2> cameras = default_raw_cameras(rig);
  const fs::path dir = fs::temp_directory_path() / ("sl3d_modes_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  ASSERT_TRUE(write_calibration_directory(cameras, dir.string()));
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  gen->verbose = 0;
  ASSERT_TRUE(gen->init(rig.width, rig.height));
  ASSERT_TRUE(gen->set_camera_params(dir.c_str()));
  fs::remove_all(dir);
  for (int c = 0; c < 2; ++c) {
    std::vector<cv::Mat> frames = sensor.render_phase_shift(cameras[c]);
    for (int i = 0; i < 13; ++i) {
      gen->rectify(frames[i].data, frames[i].cols, frames[i].rows, frames[i].step, c);
      gen->setpict(frames[i].data, frames[i].step, c, i);
    }
  }
  gen->exec();
  StereoCamera pair(*gen->get_stereo_camera());
  const int n = gen->get_disparity_cnt();
  ASSERT_GT(n, 320 * 256 / 2);
  const double* records = gen->get_disparity_ptr();

  std::vector<double> x(n), y(n), d(n), X(n), Y(n), Z(n), ok(n);
  for (int i = 0; i < n; ++i) {
    x[i] = records[4 * i];
    y[i] = records[4 * i + 1];
    d[i] = records[4 * i + 2];
  }
  const detail::RecordColumns in{x.data(), y.data(), d.data()};
  const detail::PositionColumns out{X.data(), Y.data(), Z.data(), ok.data()};
  cv::Vec3d c0(pair.cameras[0].get_center()), c1(pair.cameras[1].get_center());

  for (int mode : {1, 2}) {
    if (mode == 1) {
      detail::triangulate_rays(detail::ray_geometry(pair), in, n, out);
    } else {
      detail::triangulate_least_squares(detail::projection_geometry(pair), in, n, out);
    }
    double worst = 0.0;
    int points = 0;
    for (int i = 0; i < n; ++i) {
      const cv::Point2d left(x[i], y[i]), right(x[i] - d[i], y[i]);
      cv::Vec3d position;
      bool exists = false;
      if (mode == 1) {
        double gap = 0.0;
        const cv::Vec3d s1(pair.cameras[1].get_sight_vector(right));
        const cv::Vec3d s0(pair.cameras[0].get_sight_vector(left));
        position = pair.position_from_sv(s0, s1, gap, c0, c1);
        exists = !(gap > 1e-8);
      } else {
        position = pair.get3dposition_P(left, right, &exists);
      }
      ASSERT_EQ(exists, ok[i] != 0.0) << "mode " << mode << ", record " << i;
      if (!exists) continue;
      ++points;
      const double loop[3] = {X[i], Y[i], Z[i]};
      worst = std::max(worst, relative_gap(position, loop));
    }
    EXPECT_LE(worst, 1e-9) << "mode " << mode;
    // And genPC stores exactly these positions, as floats.
    ASSERT_EQ(gen->genPC(mode), points) << mode;
  }
  gen->destroy();
}

}  // namespace
}  // namespace sl3d
