#include <sl3d/camera/camera_distort.h>

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include "camera_test_util.h"

namespace {

using sl3d::testing::intrinsics;
using sl3d::testing::projection;
using sl3d::testing::rotation;

const double kK1 = -0.28, kK2 = 0.09, kP1 = 0.0012, kP2 = -0.0008, kK3 = -0.015;
const cv::Vec3d kT(30.0, 10.0, 500.0);

DistortCamera distorted_camera(const std::string& name = "cam0") {
  DistortCamera cam(cv::Size(640, 480), name);
  cv::Mat_<double> ppm =
      projection(intrinsics(700.0, 705.0, 318.0, 243.0), rotation(0.05, 0.2, -0.1), kT);
  cam.setPPM(ppm);
  cam.D = (cv::Mat_<double>(1, 5) << kK1, kK2, kP1, kP2, kK3);
  return cam;
}

// The radial-tangential lens model written out, independent of OpenCV.
cv::Point2d distorted_pixel(const DistortCamera& cam, const cv::Vec3d& X) {
  cv::Mat_<double> c = cam.R * cv::Mat(X) + cam.T;
  const double x = c(0) / c(2), y = c(1) / c(2);
  const double r2 = x * x + y * y;
  const double radial = 1 + kK1 * r2 + kK2 * r2 * r2 + kK3 * r2 * r2 * r2;
  const double xd = x * radial + 2 * kP1 * x * y + kP2 * (r2 + 2 * x * x);
  const double yd = y * radial + kP1 * (r2 + 2 * y * y) + 2 * kP2 * x * y;
  return {cam.K(0, 0) * xd + cam.K(0, 2), cam.K(1, 1) * yd + cam.K(1, 2)};
}

std::vector<cv::Vec3d> board_points() {
  std::vector<cv::Vec3d> points;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 5; ++j) points.emplace_back(-150 + 60 * i, -120 + 60 * j, 10.0 * (i % 2));
  return points;
}

TEST(DistortCamera, ProjectsThroughTheLensModel) {
  DistortCamera cam = distorted_camera();
  double largest_shift = 0.0;
  for (const cv::Vec3d& X : board_points()) {
    cv::Point2d got = cam.project_forw({X[0], X[1], X[2]});
    cv::Point2d want = distorted_pixel(cam, X);
    EXPECT_NEAR(got.x, want.x, 2e-3);
    EXPECT_NEAR(got.y, want.y, 2e-3);
    largest_shift = std::max(largest_shift, cv::norm(got - cam.PinHoleCamera::project_forw(
                                                               {X[0], X[1], X[2]})));
  }
  EXPECT_GT(largest_shift, 5.0);  // the distortion is real, not negligible

  cam.D.release();
  for (const cv::Vec3d& X : board_points()) {
    cv::Point3d P(X[0], X[1], X[2]);
    EXPECT_LT(cv::norm(cam.project_forw(P) - cam.PinHoleCamera::project_forw(P)), 1e-3);
  }
}

TEST(DistortCamera, RefusesInverseProjection) {
  DistortCamera cam = distorted_camera();
  const cv::Point2d principal(cam.K(0, 2), cam.K(1, 2));
  for (int call = 0; call < 2; ++call) {
    try {
      call == 0 ? cam.project_back(principal) : cam.get_sight_vector(principal);
      ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "Invert projection is not available in DistortCamera.");
    }
  }
}

TEST(DistortCamera, SolvePnPAccountsForDistortion) {
  DistortCamera cam = distorted_camera();
  std::vector<cv::Point3f> object;
  std::vector<cv::Point2f> image;
  for (const cv::Vec3d& X : board_points()) {
    object.emplace_back(X);
    image.emplace_back(cam.project_forw({X[0], X[1], X[2]}));
  }
  cv::Vec3d expected_rvec;
  cv::Rodrigues(cam.R, expected_rvec);
  for (bool ransac : {false, true}) {
    cv::Mat rvec, tvec;
    ASSERT_TRUE(ransac ? cam.solvePnPRansac(rvec, tvec, image, object)
                       : cam.solvePnP(rvec, tvec, image, object));
    EXPECT_LT(cv::norm(cv::Vec3d(rvec) - expected_rvec), 1e-3);
    EXPECT_LT(cv::norm(cv::Vec3d(tvec) - kT), 0.1);
  }
}

TEST(DistortCamera, SharedStorageRoundTripAddsDistortionKey) {
  DistortCamera cam = distorted_camera("cam1");
  cv::FileStorage out(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  ASSERT_TRUE(cam.save(&out));
  const std::string text = out.releaseAndGetString();
  EXPECT_EQ(text.find("CameraName"), std::string::npos);
  for (const char* key : {"cam1_size", "cam1_K", "cam1_R", "cam1_T", "cam1_P", "cam1_D"})
    EXPECT_NE(text.find(key), std::string::npos) << key;

  cv::FileStorage in(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
  DistortCamera back(cv::Size(), "cam1");
  ASSERT_TRUE(back.load(&in));
  EXPECT_EQ(back.size, cam.size);
  EXPECT_LT(cv::norm(back.D, cam.D, cv::NORM_INF), 1e-15);
  EXPECT_LT(cv::norm(back.P, cam.P, cv::NORM_INF), 1e-9);

  cv::FileStorage closed;
  EXPECT_FALSE(cam.save(&closed));
  EXPECT_FALSE(back.load(&closed));
}

// The own file carries no "CameraName", so reading it back by itself finds
// no keys under the empty name and OpenCV rejects the missing projection.
TEST(DistortCamera, OwnFileLacksCameraNameAndDoesNotLoadBackAlone) {
  sl3d::testing::ScratchDir dir("distort");
  sl3d::testing::WorkingDir cwd(dir.path());
  DistortCamera cam = distorted_camera("cam0");
  ASSERT_TRUE(cam.save(nullptr));
  cv::FileStorage fs("cam0_param.yaml", cv::FileStorage::READ);
  ASSERT_TRUE(fs.isOpened());
  EXPECT_TRUE(fs["CameraName"].empty());
  EXPECT_FALSE(fs["cam0_D"].empty());

  DistortCamera back(cv::Size(), "cam0");
  EXPECT_THROW(back.load(nullptr), cv::Exception);
  EXPECT_EQ(back.name, "");
  DistortCamera nobody(cv::Size(), "nobody");
  EXPECT_FALSE(nobody.load(nullptr));
}

}  // namespace
