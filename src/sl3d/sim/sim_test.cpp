// The virtual sensor and the board renderer are the ground truth of every
// other test, so their own truth is checked against first principles: the
// Q matrix and the depth map agree with the rig's geometry, the rendered
// fringes decode to the projector's true period and phase, raw cameras
// invert OpenCV's lens model; boards show their circles, polarity and ring
// holes where the projection puts them. (The perspective offset of the
// image ellipses' centres is checked where the calibration's centre
// refinement must end on it.)

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <sl3d/patterns/calibration_board.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {
namespace {

SimRig small_rig() { return SimRig::scaled(320, 256); }

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
      const cv::Vec4d out = cv::Matx44d(truth.q.data()) * cv::Vec4d(u, v, d, 1.0);
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

// Raw images are rendered along the rays the camera's lens inversion gives;
// it agrees with OpenCV's to far below a pixel, out to the image corners
// (measured 1.4e-12 px), which pins down the direction of the lens model.
TEST(VirtualSensor, RawCamerasInvertOpenCvsLensModel) {
  const SimRig rig = small_rig();
  const SimCamera distorted = default_raw_cameras(rig)[1];
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

using sl3d::BoardLayout;

unsigned char at(const cv::Mat& img, const cv::Point2d& p) {
  return img.at<unsigned char>(int(std::lround(p.y)), int(std::lround(p.x)));
}

TEST(BoardRenderer, FrontalBoardCentresAndShades) {
  BoardLayout layout;
  layout.rings = {{2, 1, 3.0}};
  const sl3d::BoardPose pose = sl3d::board_pose_facing(layout, 400.0);
  const sl3d::BoardRendering r = sl3d::render_board(layout, pose);
  ASSERT_EQ(r.centres.size(), 35u);
  // Frontal at 400: 2 px per board unit, board middle (60, 40) on the axis.
  const cv::Point2d c = r.centres[1 * 7 + 2];  // circle (2, 1)
  EXPECT_NEAR(c.x, 319.5 + (40 - 60) * 2.0, 1e-9);
  EXPECT_NEAR(c.y, 239.5 + (20 - 40) * 2.0, 1e-9);
  for (size_t k = 0; k < r.centres.size(); ++k)
    EXPECT_LT(cv::norm(r.centres[k] - r.ellipse_centres[k]), 1e-9);

  const sl3d::BoardImaging shades;
  EXPECT_EQ(at(r.image, r.centres[0]), shades.dark);
  EXPECT_EQ(at(r.image, c), shades.light);                        // the ring's hole
  EXPECT_EQ(at(r.image, c + cv::Point2d(9.0, 0.0)), shades.dark);  // the ring
  EXPECT_EQ(at(r.image, r.centres[0] + cv::Point2d(20.0, 0.0)), shades.light);
  EXPECT_EQ(at(r.image, cv::Point2d(2, 2)), shades.background);

  layout.dark_circles = false;
  const sl3d::BoardRendering light = sl3d::render_board(layout, pose);
  EXPECT_EQ(at(light.image, light.centres[0]), shades.light);
  EXPECT_EQ(at(light.image, light.centres[0] + cv::Point2d(20.0, 0.0)), shades.dark);
}

// A moved, distorting camera reports as circle centres the lens's
// projections of the true circle centres, and draws the circles there.
TEST(BoardRenderer, RealCameraProjectsThroughItsLens) {
  BoardLayout layout;
  layout.rings = {{2, 1, 3.0}};
  const sl3d::BoardPose pose = sl3d::board_pose_facing(layout, 400.0, 20.0, -15.0, 30.0);
  sl3d::SimCamera camera;
  camera.size = cv::Size(400, 300);  // small: quick maps
  camera.K = cv::Matx33d(500.0, 0, 199.5, 0, 500.0, 149.5, 0, 0, 1);
  cv::Rodrigues(cv::Vec3d(0.02, -0.05, 0.01), camera.cam_from_world_R);
  camera.cam_from_world_t = cv::Vec3d(-10.0, 5.0, 3.0);
  sl3d::SimCamera lens_free = camera;
  camera.distortion = {-0.15, 0.08, 0.001, -0.0005, 0.0};
  const sl3d::BoardImaging imaging;
  const sl3d::BoardRendering bent = sl3d::DistortedBoardCamera(camera, 2).render(layout, pose);
  cv::Matx33d world_from_board;
  cv::Rodrigues(pose.rvec, world_from_board);
  double largest_bend = 0.0;
  for (int j = 0; j < layout.circles_y; ++j) {
    for (int i = 0; i < layout.circles_x; ++i) {
      const cv::Vec3d world =
          world_from_board * cv::Vec3d(i * layout.spacing, j * layout.spacing, 0) + pose.tvec;
      const size_t k = size_t(j * layout.circles_x + i);
      EXPECT_LT(cv::norm(bent.centres[k] - camera.project(world)), 1e-6);
      largest_bend = std::max(largest_bend, cv::norm(bent.centres[k] - lens_free.project(world)));
      // The drawn circle is where its centre says: dark at the centre.
      if (k != 1 * 7 + 2) EXPECT_EQ(at(bent.image, bent.centres[k]), imaging.dark) << k;
    }
  }
  EXPECT_GT(largest_bend, 1.0);  // the lens does move the circles (by up to 1.2 px)
}

// Darkness-weighted centroid of the pixels within `radius` of `near`.
cv::Point2d dark_centroid(const cv::Mat& image, cv::Point2d near, double radius) {
  cv::Point2d sum(0, 0);
  double weight = 0.0;
  for (int y = int(near.y - radius); y <= int(near.y + radius); ++y) {
    for (int x = int(near.x - radius); x <= int(near.x + radius); ++x) {
      if (std::hypot(x - near.x, y - near.y) > radius) continue;
      const double w = 255.0 - image.at<unsigned char>(y, x);
      sum += w * cv::Point2d(x, y);
      weight += w;
    }
  }
  return sum / weight;
}

// A board drawn from its 300 dpi bitmap lands where the analytic drawing of
// the same layout does, to a small fraction of a pixel, near and far (the
// bitmap's pyramid levels must line up with its full resolution).
TEST(BoardRenderer, BitmapBoardLandsWhereTheDrawingDoes) {
  sl3d::BoardDesign design;
  ASSERT_TRUE(sl3d::make_board_design(sl3d::BoardFamily::kPellux, 7, 5, 20.0, design));
  const double ppmm = 300.0 / 25.4;
  const sl3d::BoardTexture texture(
      sl3d::board_raster(design, ppmm), ppmm,
      sl3d::board_raster_offset(design, ppmm) + cv::Point2d(design.margin, design.margin) * ppmm);
  const BoardLayout layout = sl3d::board_layout(design);
  sl3d::BoardImaging imaging;
  imaging.supersampling = 4;
  for (double distance : {300.0, 900.0}) {
    const sl3d::BoardPose pose = sl3d::board_pose_facing(layout, distance, 25.0, -20.0, 10.0);
    const sl3d::BoardRendering drawn = sl3d::render_board(layout, pose, {}, imaging);
    const sl3d::BoardRendering bitmap = sl3d::render_board(texture, layout, pose, {}, imaging);
    const double radius = 1.2 * design.radius * 800.0 / distance;
    for (size_t k = 0; k < drawn.centres.size(); ++k) {
      const cv::Point2d a = dark_centroid(drawn.image, drawn.centres[k], radius);
      const cv::Point2d b = dark_centroid(bitmap.image, drawn.centres[k], radius);
      EXPECT_LT(cv::norm(a - b), 0.03) << "distance " << distance << " circle " << k;
    }
  }
}

}  // namespace
}  // namespace sl3d
