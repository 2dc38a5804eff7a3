#include <sl3d/camera/camera_pinhole.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "camera_test_util.h"

namespace {

using sl3d::testing::intrinsics;
using sl3d::testing::projection;
using sl3d::testing::rotation;

const cv::Vec3d kT(50.0, -20.0, 400.0);

cv::Mat_<double> test_K() { return intrinsics(800.0, 820.0, 320.5, 241.0); }
cv::Mat_<double> test_R() { return rotation(0.1, -0.2, 0.3); }

PinHoleCamera posed_camera(const std::string& name = "cam0") {
  PinHoleCamera cam(cv::Size(640, 480), name);
  cv::Mat_<double> ppm = projection(test_K(), test_R(), kT);
  cam.setPPM(ppm);
  return cam;
}

cv::Vec3d vec(const cv::Point3d& p) { return {p.x, p.y, p.z}; }
cv::Vec3d vec(const cv::Mat& m) { return cv::Vec3d(m); }

double max_diff(const cv::Mat& a, const cv::Mat& b) { return cv::norm(a, b, cv::NORM_INF); }

// setPPM of K·[R|T] recovers the parts, and rays from the centre along the
// sight vector project back onto their pixel at any distance.
TEST(PinHoleCamera, SetPPMRecoversPoseAndRaysProjectBack) {
  PinHoleCamera cam = posed_camera();
  cv::Mat_<double> ppm = projection(test_K(), test_R(), kT);
  EXPECT_LT(max_diff(cam.P.rowRange(0, 3), ppm), 1e-9);
  EXPECT_LT(max_diff(cam.K, test_K()), 1e-9);
  EXPECT_LT(max_diff(cam.R, test_R()), 1e-12);
  EXPECT_LT(max_diff(cam.T, cv::Mat(kT)), 1e-9);
  EXPECT_LT(max_diff(cam.P * cam.P_inv, cv::Mat::eye(4, 4, CV_64F)), 1e-9);

  const cv::Vec3d centre = vec(cam.get_center());
  cv::Mat_<double> expected_centre = -test_R().t() * cv::Mat(kT);
  EXPECT_LT(cv::norm(centre - cv::Vec3d(expected_centre)), 1e-9);

  for (cv::Point2d p : {cv::Point2d(0, 0), cv::Point2d(320.5, 241), cv::Point2d(639, 17.25)}) {
    const cv::Vec3d sight = vec(cam.get_sight_vector(p));
    EXPECT_NEAR(cv::norm(sight), 1.0, 1e-12);
    EXPECT_LT(cv::norm(cv::Vec3d(vec(cam.project_back(p))).cross(sight)), 1e-12);
    // In front of the camera, not behind it.
    cv::Mat_<double> in_camera = test_R() * cv::Mat(sight);
    EXPECT_GT(in_camera(2), 0.0);
    for (double k : {0.5, 100.0, 5000.0}) {
      cv::Vec3d X = centre + k * sight;
      cv::Point2d q = cam.project_forw({X[0], X[1], X[2]});
      EXPECT_NEAR(q.x, p.x, 1e-7);
      EXPECT_NEAR(q.y, p.y, 1e-7);
    }
  }
}

// compose() updates P but deliberately not RT/RT_inv; get_center() is a
// view that only setPPM refreshes.
TEST(PinHoleCamera, ComposeLeavesCentreStaleAndCentreIsAView) {
  PinHoleCamera cam = posed_camera();
  cv::Mat centre = cam.get_center();
  const cv::Vec3d old_centre = vec(centre);

  cam.R = rotation(0.0, 0.4, 0.0);
  cam.compose();
  cv::Mat_<double> composed = projection(test_K(), cam.R, kT);
  EXPECT_LT(max_diff(cam.P.rowRange(0, 3), composed), 1e-9);
  EXPECT_LT(max_diff(cam.P * cam.P_inv, cv::Mat::eye(4, 4, CV_64F)), 1e-9);
  EXPECT_EQ(vec(cam.get_center()), old_centre);

  cam.setPPM(composed);
  cv::Mat_<double> new_centre = -cam.R.t() * cv::Mat(kT);
  EXPECT_LT(cv::norm(vec(centre) - cv::Vec3d(new_centre)), 1e-9);  // the old view follows
}

// --- persistence ----------------------------------------------------------

class PinHolePersistence : public ::testing::Test {
 protected:
  sl3d::testing::ScratchDir dir_{"pinhole"};
  sl3d::testing::WorkingDir cwd_{dir_.path()};
};

TEST_F(PinHolePersistence, OwnFileRoundTripRestoresSizeNameAndProjection) {
  PinHoleCamera cam = posed_camera();
  ASSERT_TRUE(cam.save(nullptr));
  ASSERT_TRUE(std::filesystem::exists("cam0_param.yaml"));
  {
    cv::FileStorage fs("cam0_param.yaml", cv::FileStorage::READ);
    EXPECT_EQ(static_cast<std::string>(fs["CameraName"]), "cam0");
    EXPECT_EQ(fs["cam0_size"].size(), 2u);
  }
  PinHoleCamera loaded(cv::Size(1, 1), "cam0");
  ASSERT_TRUE(loaded.load(nullptr));
  EXPECT_EQ(loaded.name, "cam0");
  EXPECT_EQ(loaded.size, cv::Size(640, 480));
  EXPECT_LT(max_diff(loaded.P, cam.P), 1e-9);
  EXPECT_LT(max_diff(loaded.K, cam.K), 1e-9);
  EXPECT_LT(max_diff(loaded.RT_inv, cam.RT_inv), 1e-9);

  PinHoleCamera missing(cv::Size(3, 2), "nobody");
  EXPECT_FALSE(missing.load(nullptr));
  EXPECT_EQ(missing.size, cv::Size(3, 2));
}

// The stored K/R/T are informative: "_P" decides. A size that is not two
// integers loads as 0x0. The file is chosen by the old name, the keys by
// the "CameraName" inside it.
TEST_F(PinHolePersistence, ProjectionWinsSizeMustBeAPairNameIsTakenFromFile) {
  PinHoleCamera truth = posed_camera("right");
  for (int entries : {1, 3}) {
    {
      cv::FileStorage fs("left_param.yaml", cv::FileStorage::WRITE);
      fs << "CameraName" << "right";
      fs << "right_size" << "[:";
      for (int i = 0; i < entries; ++i) fs << 640;
      fs << "]";
      cv::write(fs, "right_K", cv::Mat(cv::Mat::eye(3, 3, CV_64F) * 7));
      cv::write(fs, "right_R", cv::Mat(cv::Mat::eye(3, 3, CV_64F)));
      cv::write(fs, "right_T", cv::Mat(cv::Mat::zeros(3, 1, CV_64F)));
      cv::write(fs, "right_P", cv::Mat(truth.P.rowRange(0, 3)));
    }
    PinHoleCamera cam(cv::Size(9, 9), "left");
    ASSERT_TRUE(cam.load(nullptr));
    EXPECT_EQ(cam.name, "right");
    EXPECT_EQ(cam.size, cv::Size(0, 0)) << entries << " size entries";
    EXPECT_LT(max_diff(cam.K, test_K()), 1e-9);
    EXPECT_LT(max_diff(cam.T, cv::Mat(kT)), 1e-9);
  }
}

TEST_F(PinHolePersistence, HmatIs96NativeDoublesAndRoundTripsBitExactly) {
  PinHoleCamera cam0 = posed_camera("cam0");
  PinHoleCamera cam1(cv::Size(640, 480), "cam1");
  cv::Mat_<double> other = projection(intrinsics(1000, 1000, 300, 200), rotation(0, 0.1, 0),
                                      cv::Vec3d(-100, 0, 0));
  cam1.setPPM(other);
  {
    std::ofstream os("pair.dat", std::ios::binary);
    ASSERT_TRUE(cam0.save_hmat(os));
    ASSERT_TRUE(cam1.save_hmat(os));
  }
  ASSERT_EQ(std::filesystem::file_size("pair.dat"), 192u);

  std::ifstream raw("pair.dat", std::ios::binary);
  double values[12];
  raw.read(reinterpret_cast<char*>(values), sizeof values);
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(std::memcmp(&values[i], &cam0.P(i / 4, i % 4), 8), 0) << i;

  std::ifstream is("pair.dat", std::ios::binary);
  PinHoleCamera back0(cv::Size(), "a"), back1(cv::Size(), "b");
  ASSERT_TRUE(back0.load_hmat(is));
  ASSERT_TRUE(back1.load_hmat(is));
  EXPECT_EQ(std::memcmp(back0.P.ptr(), cam0.P.ptr(), 96), 0);
  EXPECT_EQ(std::memcmp(back1.P.ptr(), cam1.P.ptr(), 96), 0);
  EXPECT_LT(max_diff(back1.K, cam1.K), 1e-9);

  // A short record leaves the camera as it was.
  std::filesystem::resize_file("pair.dat", 150);
  std::ifstream short_is("pair.dat", std::ios::binary);
  PinHoleCamera untouched(cv::Size(), "c");
  ASSERT_TRUE(untouched.load_hmat(short_is));
  const cv::Mat_<double> before = untouched.P.clone();
  EXPECT_FALSE(untouched.load_hmat(short_is));
  EXPECT_EQ(max_diff(untouched.P, before), 0.0);
}

}  // namespace
