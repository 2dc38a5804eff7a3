// The virtual sensor is the ground truth of every other test, so its own
// truth is checked against first principles: the Q matrix and the depth map
// agree with the rig's geometry, the rendered fringes decode to the
// projector's true period and phase, and raw images carry OpenCV's lens
// model.

#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/psft/psft.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

SimRig small_rig() {
  SimRig rig = SimRig::scaled(320, 256);
  return rig;
}

cv::Vec3d point_of_pixel(const SimRig& rig, int u, int v, double depth) {
  return cv::Vec3d((u - rig.cx()) / rig.focal_px, (v - rig.cy()) / rig.focal_px, 1.0) * depth;
}

TEST(VirtualSensor, QMatrixReprojectsTheTrueDisparityToTheTruePoint) {
  const VirtualSensor sensor(small_rig());
  const SimRig& rig = sensor.rig();
  const SimGroundTruth truth = sensor.ground_truth();
  for (int v = 0; v < rig.height; v += 37) {
    for (int u = 0; u < rig.width; u += 41) {
      const double z = truth.depth.at<double>(v, u);
      ASSERT_TRUE(std::isfinite(z));
      const double d = rig.focal_px * rig.baseline_mm / z;
      const double in[4] = {double(u), double(v), d, 1.0};
      double out[4] = {0, 0, 0, 0};
      for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) out[r] += truth.q[r * 4 + c] * in[c];
      const cv::Vec3d expected = point_of_pixel(rig, u, v, z);
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(out[k] / out[3], expected[k], 1e-6 * z);
    }
  }
}

TEST(VirtualSensor, FringesDecodeToTheProjectorsPeriodAndPhase) {
  const VirtualSensor sensor(small_rig());
  const SimRig& rig = sensor.rig();
  const SimGroundTruth truth = sensor.ground_truth();
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  ASSERT_TRUE(gen->init(rig.width, rig.height));
  const std::vector<cv::Mat> frames = sensor.render_phase_shift(0);
  for (int i = 0; i < 13; ++i) gen->setpict(frames[i].data, frames[i].step, 0, i);
  gen->mk_code7(0);
  gen->check_code7(0);
  gen->mk_phase(0);
  gen->unwrap(0);
  int accepted = 0, right_period = 0, right_phase = 0;
  for (int v = 0; v < rig.height; ++v) {
    for (int u = 0; u < rig.width; ++u) {
      if (gen->status_map(0)(v, u) >= 200) continue;
      const cv::Vec3d p = point_of_pixel(rig, u, v, truth.depth.at<double>(v, u));
      ++accepted;
      right_period += gen->code_map(0)(v, u) == sensor.period_index_at(p);
      right_phase += std::fabs(gen->phase_map(0)(v, u) - sensor.absolute_phase_at(p)) < 0.1;
    }
  }
  gen->destroy();
  // Most of the view is lit and inside the usable periods 25..96.
  EXPECT_GT(accepted, rig.width * rig.height * 7 / 10);
  // A few pixels at stripe edges keep a period off by one.
  EXPECT_GT(right_period, accepted * 99 / 100);
  EXPECT_GT(right_phase, accepted * 99 / 100);
}

// A raw image, undistorted with OpenCV's own maps, must look like the same
// camera without lens distortion: this pins down the direction of the
// renderer's lens model independently of its implementation.
TEST(VirtualSensor, RawImagesCarryOpenCvsLensDistortion) {
  const SimRig rig = small_rig();
  const VirtualSensor sensor(rig);
  const SimCamera distorted = default_raw_cameras(rig)[1];
  SimCamera ideal = distorted;
  ideal.distortion = cv::Vec<double, 5>(0, 0, 0, 0, 0);
  SimLight light;
  light.noise_sigma = 0.0;
  const cv::Mat raw = sensor.render_textured(distorted, light);
  cv::Mat expected = sensor.render_textured(ideal, light);
  cv::Mat map1, map2, undistorted;
  cv::initUndistortRectifyMap(cv::Mat(distorted.K), cv::Mat(distorted.distortion), cv::noArray(),
                              cv::Mat(distorted.K), raw.size(), CV_32FC1, map1, map2);
  cv::remap(raw, undistorted, map1, map2, cv::INTER_LINEAR);
  // The texture is about a pixel fine; compare what survives resampling.
  for (cv::Mat* image : {&undistorted, &expected}) {
    cv::GaussianBlur(*image, *image, cv::Size(0, 0), 2.0);
  }
  cv::Mat raw_blurred;
  cv::GaussianBlur(raw, raw_blurred, cv::Size(0, 0), 2.0);
  const cv::Rect inner(40, 40, rig.width - 80, rig.height - 80);
  const double corrected = cv::norm(undistorted(inner), expected(inner), cv::NORM_L1) / inner.area();
  const double uncorrected =
      cv::norm(raw_blurred(inner), expected(inner), cv::NORM_L1) / inner.area();
  EXPECT_LT(corrected, 1.5);
  EXPECT_GT(uncorrected, 2.0 * corrected);

  // The renderer's own lens inversion agrees with OpenCV's to far below a
  // pixel, out to the image corners (measured 1.4e-12 px).
  std::vector<cv::Point2d> pixels, rays;
  for (int v = -1; v <= rig.height; v += 7)
    for (int u = -1; u <= rig.width; u += 7) pixels.emplace_back(u, v);
  cv::undistortPoints(pixels, rays, cv::Mat(distorted.K), cv::Mat(distorted.distortion),
                      cv::noArray(), cv::noArray(),
                      cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 50, 1e-12));
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    ASSERT_LT(cv::norm(distorted.undistort(pixels[i]) - rays[i]) * distorted.K(0, 0), 1e-9)
        << pixels[i];
  }
}

TEST(VirtualSensor, DistanceToSceneIsTheGapToTheNearestSurface) {
  const VirtualSensor sensor(small_rig());
  const SimSphere& sphere = sensor.scene().spheres.at(0);
  const cv::Vec3d outward(0.0, -0.6, -0.8);
  EXPECT_NEAR(sensor.distance_to_scene(sphere.center + (sphere.radius + 7.0) * outward), 7.0, 1e-9);
  const SimPlane& wall = sensor.scene().planes.at(0);
  EXPECT_NEAR(sensor.distance_to_scene(wall.point + 3.0 * cv::normalize(wall.normal)), 3.0, 1e-9);
}

}  // namespace
}  // namespace sl3d
