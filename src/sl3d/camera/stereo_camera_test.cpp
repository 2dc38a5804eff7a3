// The stereo pair against the virtual sensor's true cameras: rectification
// must put matches on one row, every triangulation must give back the true
// point, and both stored forms must reload to the same pair.

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <opencv2/calib3d.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "camera_test_util.h"

namespace {

namespace fs = std::filesystem;

// The true cameras as a calibration delivers them: camera 0 in the world
// frame, camera 1's pose relative to camera 0.
struct TruePair {
  DistortCamera cams[2] = {DistortCamera(cv::Size(0, 0), "cam0"),
                           DistortCamera(cv::Size(0, 0), "cam1")};
  TruePair() { sl3d::calibrated_pair(sl3d::default_raw_cameras(sl3d::SimRig::scaled(320, 256)), cams); }
};

StereoCamera rectified_pair() {
  TruePair truth;
  return StereoCamera(truth.cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0), cv::Scalar(0));
}

// Raw pixel of camera i -> rectified pixel, by OpenCV's own point mapping.
cv::Point2d rectify_point(const StereoCamera& pair, const DistortCamera& raw, int i,
                          const cv::Point2d& p) {
  std::vector<cv::Point2d> in{p}, out;
  cv::Mat P = cv::Mat(pair.cameras[i].P)(cv::Rect(0, 0, 4, 3));
  cv::undistortPoints(in, out, raw.K, raw.D, i == 0 ? pair.cam0_R2 : pair.cam1_R2, P);
  return out[0];
}

TEST(StereoCamera, RectifiedMatchesShareARowAndTriangulateToTheTruth) {
  TruePair truth;
  DistortCamera (&cams)[2] = truth.cams;
  StereoCamera pair(cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0), cv::Scalar(0));
  EXPECT_TRUE(pair.is_horizontal_stereo());
  EXPECT_EQ(pair.cameras[0].name, "stereoL");
  const cv::Mat_<double> rect_from_cam0 = pair.cam0_R2;
  for (const cv::Vec3d world : {cv::Vec3d(-120, 60, 950), cv::Vec3d(80, -40, 1200), cv::Vec3d(5, 5, 700)}) {
    cv::Point2d raw[2];
    for (int i = 0; i < 2; ++i) {
      cv::Point3_<double> X(world[0], world[1], world[2]);
      raw[i] = cams[i].project_forw(X);
    }
    const cv::Point2d pl = rectify_point(pair, cams[0], 0, raw[0]);
    const cv::Point2d pr = rectify_point(pair, cams[1], 1, raw[1]);
    EXPECT_NEAR(pl.y, pr.y, 1e-3) << "rectified rows differ";
    const cv::Mat_<double> expected = rect_from_cam0 * cv::Mat_<double>(cv::Mat(world));
    bool ok = false;
    double gap = -1.0;
    const cv::Vec3d by_p = pair.get3dposition_P(pl, pr, &ok);
    const cv::Vec3d by_rays = pair.get3dposition(pl, pr, gap);
    const cv::Vec3d by_q = pair.get3dposition_Q(pl.x, pl.y, pl.x - pr.x);
    EXPECT_TRUE(ok);
    EXPECT_LT(gap, 0.05);
    for (int k = 0; k < 3; ++k) {
      EXPECT_NEAR(by_p[k], expected(k), 0.05);
      EXPECT_NEAR(by_rays[k], expected(k), 0.05);
      EXPECT_NEAR(by_q[k], expected(k), 0.05);
    }
    // The disparity of a point straight ahead at that distance, including
    // the offset of the two rectified principal points.
    const double f = pair.cameras[0].K(0, 0);
    const double baseline = cv::norm(pair.camdis);
    const double offset = pair.cameras[0].K(0, 2) - pair.cameras[1].K(0, 2);
    EXPECT_NEAR(pair.convert_distance_to_disparity(expected(2)), f * baseline / expected(2) + offset,
                1e-6);
  }
}

TEST(StereoCamera, ParallelRaysAndSingularSystemsReportThemselves) {
  StereoCamera pair = rectified_pair();
  cv::Vec3d c0(0, 0, 0), c1(100, 0, 0);
  const cv::Vec3d s(0, 0, 1);
  double gap = 0.0;
  const cv::Vec3d p = pair.position_from_sv(s, s, gap, c0, c1);
  EXPECT_EQ(gap, DBL_MAX);
  EXPECT_EQ(p, cv::Vec3d(0, 0, 0));
  // Zero projection matrices make the normal matrix singular.
  StereoCamera empty(cv::Size(10, 10));
  empty.cameras[0].P = cv::Mat_<double>::zeros(4, 4);
  empty.cameras[1].P = cv::Mat_<double>::zeros(4, 4);
  bool ok = true;
  EXPECT_EQ(empty.get3dposition_P({1, 1}, {1, 1}, &ok), cv::Vec3d(0, 0, 0));
  EXPECT_FALSE(ok);
  EXPECT_EQ(empty.get3dposition_P({1, 1}, {1, 1}, nullptr), cv::Vec3d(0, 0, 0));
}

class StereoDirectory : public ::testing::Test {
 protected:
  std::string path(const std::string& file) const { return dir_.file(file); }
  sl3d::testing::ScratchDir dir_{"stereo"};
};

TEST_F(StereoDirectory, YamlFormReloadsTheSamePair) {
  StereoCamera pair = rectified_pair();
  ASSERT_TRUE(pair.save(dir_.path().string()));
  EXPECT_TRUE(fs::exists(path("stereo_param.yaml")));
  EXPECT_TRUE(fs::exists(path("rect0.map")));
  StereoCamera loaded(cv::Size(0, 0));
  ASSERT_TRUE(loaded.load(dir_.path().string()));
  EXPECT_EQ(cv::norm(loaded.Q, pair.Q, cv::NORM_INF), 0.0);
  EXPECT_EQ(loaded.oldcamSize, pair.oldcamSize);
  EXPECT_EQ(cv::norm(loaded.cam1_R2, pair.cam1_R2, cv::NORM_INF), 0.0);
  EXPECT_LT(cv::norm(loaded.camdis, pair.camdis, cv::NORM_INF), 1e-9);
  EXPECT_EQ(cv::norm(loaded.cameras[1].map1, pair.cameras[1].map1, cv::NORM_INF), 0.0);
}

TEST_F(StereoDirectory, BinaryFormReloadsWithARecalculatedQ) {
  StereoCamera pair = rectified_pair();
  ASSERT_TRUE(store_StereoCamera_to_Hmats(&pair, path("hmat0.dat"), path("hmat1.dat"),
                                          path("rect.param")));
  EXPECT_EQ(fs::file_size(path("hmat0.dat")), 96u);
  StereoCamera* loaded = create_StereoCamera_from_Hmats(
      path("hmat0.dat"), path("hmat1.dat"), path("rect.param"), pair.cameras[0].size,
      cv::Scalar(0), cv::Scalar(0));
  ASSERT_NE(loaded, nullptr);
  // Q rebuilt from the projection matrices reprojects as the rectifier's Q.
  for (const cv::Vec3d xyd : {cv::Vec3d(10, 20, 30), cv::Vec3d(200, 100, 12.5)}) {
    const cv::Vec3d a = pair.get3dposition_Q(xyd[0], xyd[1], xyd[2]);
    const cv::Vec3d b = loaded->get3dposition_Q(xyd[0], xyd[1], xyd[2]);
    EXPECT_LT(cv::norm(a - b), 1e-6 * cv::norm(a));
  }
  delete loaded;
  // The files are read in order; the first one missing ends the attempt.
  fs::remove(path("hmat1.dat"));
  EXPECT_EQ(create_StereoCamera_from_Hmats(path("hmat0.dat"), path("hmat1.dat"),
                                           path("rect.param"), pair.cameras[0].size,
                                           cv::Scalar(0), cv::Scalar(0)),
            nullptr);
}

TEST_F(StereoDirectory, CameraFilesAreRectifiedOnLoad) {
  TruePair truth;
  DistortCamera (&cams)[2] = truth.cams;
  for (int i = 0; i < 2; ++i) {
    cv::FileStorage out(path("cam" + std::to_string(i) + "_param.yaml"), cv::FileStorage::WRITE);
    ASSERT_TRUE(cams[i].save(&out));
  }
  StereoCamera* pair = create_StereoCamera({path("cam0_param.yaml"), path("cam1_param.yaml")},
                                           cv::Size(0, 0), -1.0, 0, cv::Scalar(0), cv::Scalar(0));
  ASSERT_NE(pair, nullptr);
  const StereoCamera direct(cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0), cv::Scalar(0));
  EXPECT_LT(cv::norm(pair->Q, direct.Q, cv::NORM_INF), 1e-6);
  delete pair;
  EXPECT_EQ(create_StereoCamera({}, cv::Size(0, 0), -1.0, 0, cv::Scalar(0), cv::Scalar(0)), nullptr);
  EXPECT_EQ(create_StereoCamera({path("missing.yaml")}, cv::Size(0, 0), -1.0, 0, cv::Scalar(0),
                                cv::Scalar(0)),
            nullptr);
}

}  // namespace
