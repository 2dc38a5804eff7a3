// The camera models against cameras made from known parts: pin-hole pose
// and rays, the lens model, the undistortion maps and their binary records,
// the stereo pair against the virtual sensor's true cameras, and every
// stored form of them.
// The calibration files are read through the library's own YAML subset
// reader, whose refusals name the line.

#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/camera/camera_undistort.h>
#include <sl3d/camera/rectify_map_io.h>
#include <sl3d/camera/stereo_camera.h>
#include <sl3d/camera/yaml_reader.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

namespace {

namespace fs = std::filesystem;

cv::Mat_<double> intrinsics(double fx, double fy, double cx, double cy) {
  return (cv::Mat_<double>(3, 3) << fx, 0, cx, 0, fy, cy, 0, 0, 1);
}

cv::Mat_<double> rotation(double rx, double ry, double rz) {
  cv::Mat_<double> R;
  cv::Rodrigues(cv::Vec3d(rx, ry, rz), R);
  return R;
}

// The 3x4 projection K·[R|t].
cv::Mat_<double> projection(const cv::Mat_<double>& K, const cv::Mat_<double>& R,
                            const cv::Vec3d& t) {
  cv::Mat_<double> Rt;
  cv::hconcat(R, cv::Mat(t), Rt);
  return K * Rt;
}

double max_diff(const cv::Mat& a, const cv::Mat& b) { return cv::norm(a, b, cv::NORM_INF); }
cv::Vec3d vec(const cv::Point3d& p) { return {p.x, p.y, p.z}; }
cv::Point3d point(const cv::Vec3d& v) { return {v[0], v[1], v[2]}; }

// Each test runs in a fresh scratch directory (cameras write their own
// files relative to the working directory), removed afterwards.
class Camera : public ::testing::Test {
 protected:
  Camera() : previous_(fs::current_path()) {
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    fs::current_path(dir_);
  }
  ~Camera() override {
    fs::current_path(previous_);
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }
  std::string file(const std::string& name) const { return (dir_ / name).string(); }

  const fs::path dir_ = fs::temp_directory_path() / ("sl3d_camera_" + std::to_string(::getpid()));
  const fs::path previous_;
};

// --- pin-hole ---------------------------------------------------------------

const cv::Vec3d kT(50.0, -20.0, 400.0);
const cv::Mat_<double> kK = intrinsics(800.0, 820.0, 320.5, 241.0);
const cv::Mat_<double> kR = rotation(0.1, -0.2, 0.3);

PinHoleCamera posed_camera(const std::string& name = "cam0") {
  PinHoleCamera cam(cv::Size(640, 480), name);
  cv::Mat_<double> ppm = projection(kK, kR, kT);
  cam.setPPM(ppm);
  return cam;
}

// setPPM of K·[R|T] recovers the parts, and rays from the centre along the
// sight vector project back onto their pixel at any distance.
TEST(PinHoleCamera, SetPPMRecoversPoseAndRaysProjectBack) {
  PinHoleCamera cam = posed_camera();
  EXPECT_LT(max_diff(cam.P.rowRange(0, 3), projection(kK, kR, kT)), 1e-9);
  EXPECT_LT(max_diff(cam.K, kK), 1e-9);
  EXPECT_LT(max_diff(cam.R, kR), 1e-12);
  EXPECT_LT(max_diff(cam.T, cv::Mat(kT)), 1e-9);
  EXPECT_LT(max_diff(cam.P * cam.P_inv, cv::Mat::eye(4, 4, CV_64F)), 1e-9);
  const cv::Vec3d centre(cam.get_center());
  EXPECT_LT(cv::norm(centre - cv::Vec3d(cv::Mat_<double>(-kR.t() * cv::Mat(kT)))), 1e-9);

  for (cv::Point2d p : {cv::Point2d(0, 0), cv::Point2d(320.5, 241), cv::Point2d(639, 17.25)}) {
    const cv::Vec3d sight = vec(cam.get_sight_vector(p));
    EXPECT_NEAR(cv::norm(sight), 1.0, 1e-12);
    EXPECT_LT(cv::norm(vec(cam.project_back(p)).cross(sight)), 1e-12);
    EXPECT_GT(cv::Mat_<double>(kR * cv::Mat(sight))(2), 0.0);  // in front, not behind
    for (double k : {0.5, 100.0, 5000.0}) {
      const cv::Point2d q = cam.project_forw(point(centre + k * sight));
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
  const cv::Vec3d old_centre(centre);
  cam.R = rotation(0.0, 0.4, 0.0);
  cam.compose();
  cv::Mat_<double> composed = projection(kK, cam.R, kT);
  EXPECT_LT(max_diff(cam.P.rowRange(0, 3), composed), 1e-9);
  EXPECT_LT(max_diff(cam.P * cam.P_inv, cv::Mat::eye(4, 4, CV_64F)), 1e-9);
  EXPECT_EQ(cv::Vec3d(cam.get_center()), old_centre);
  cam.setPPM(composed);
  const cv::Vec3d new_centre(cv::Mat_<double>(-cam.R.t() * cv::Mat(kT)));
  EXPECT_LT(cv::norm(cv::Vec3d(centre) - new_centre), 1e-9);  // the old view follows
}

TEST_F(Camera, PinHoleOwnFileRoundTripRestoresSizeNameAndProjection) {
  PinHoleCamera cam = posed_camera();
  ASSERT_TRUE(cam.save(nullptr));
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
  EXPECT_LT(max_diff(loaded.RT_inv, cam.RT_inv), 1e-9);
  PinHoleCamera missing(cv::Size(3, 2), "nobody");
  EXPECT_FALSE(missing.load(nullptr));
  EXPECT_EQ(missing.size, cv::Size(3, 2));
}

// The stored K/R/T are informative: "_P" decides. A size that is not two
// integers loads as 0x0. The file is chosen by the old name, the keys by
// the "CameraName" inside it.
TEST_F(Camera, PinHoleProjectionWinsSizeMustBeAPairNameIsTakenFromFile) {
  PinHoleCamera truth = posed_camera("right");
  for (int entries : {1, 3}) {
    {
      cv::FileStorage fs("left_param.yaml", cv::FileStorage::WRITE);
      fs << "CameraName" << "right" << "right_size" << "[:";
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
    EXPECT_LT(max_diff(cam.K, kK), 1e-9);
    EXPECT_LT(max_diff(cam.T, cv::Mat(kT)), 1e-9);
  }
}

TEST_F(Camera, HmatIs96NativeDoublesAndRoundTripsBitExactly) {
  PinHoleCamera cam0 = posed_camera("cam0"), cam1(cv::Size(640, 480), "cam1");
  cv::Mat_<double> other =
      projection(intrinsics(1000, 1000, 300, 200), rotation(0, 0.1, 0), cv::Vec3d(-100, 0, 0));
  cam1.setPPM(other);
  {
    std::ofstream os("pair.dat", std::ios::binary);
    ASSERT_TRUE(cam0.save_hmat(os) && cam1.save_hmat(os));
  }
  ASSERT_EQ(fs::file_size("pair.dat"), 192u);
  std::ifstream raw("pair.dat", std::ios::binary);
  double values[12];
  raw.read(reinterpret_cast<char*>(values), sizeof values);
  for (int i = 0; i < 12; ++i)
    EXPECT_EQ(std::memcmp(&values[i], &cam0.P(i / 4, i % 4), 8), 0) << i;

  std::ifstream is("pair.dat", std::ios::binary);
  PinHoleCamera back0(cv::Size(), "a"), back1(cv::Size(), "b");
  ASSERT_TRUE(back0.load_hmat(is) && back1.load_hmat(is));
  EXPECT_EQ(std::memcmp(back0.P.ptr(), cam0.P.ptr(), 96), 0);
  EXPECT_EQ(std::memcmp(back1.P.ptr(), cam1.P.ptr(), 96), 0);
  EXPECT_LT(max_diff(back1.K, cam1.K), 1e-9);

  // A short record leaves the camera as it was.
  fs::resize_file("pair.dat", 150);
  std::ifstream short_is("pair.dat", std::ios::binary);
  ASSERT_TRUE(back0.load_hmat(short_is));
  const cv::Mat_<double> before = back0.P.clone();
  EXPECT_FALSE(back0.load_hmat(short_is));
  EXPECT_EQ(max_diff(back0.P, before), 0.0);
}

// --- lens distortion --------------------------------------------------------

const double kK1 = -0.28, kK2 = 0.09, kP1 = 0.0012, kP2 = -0.0008, kK3 = -0.015;
const cv::Vec3d kDistortT(30.0, 10.0, 500.0);

DistortCamera distorted_camera(const std::string& name = "cam0") {
  DistortCamera cam(cv::Size(640, 480), name);
  cv::Mat_<double> ppm =
      projection(intrinsics(700.0, 705.0, 318.0, 243.0), rotation(0.05, 0.2, -0.1), kDistortT);
  cam.setPPM(ppm);
  cam.D = (cv::Mat_<double>(1, 5) << kK1, kK2, kP1, kP2, kK3);
  return cam;
}

// The radial-tangential lens model written out, independent of OpenCV.
cv::Point2d distorted_pixel(const DistortCamera& cam, const cv::Vec3d& X) {
  cv::Mat_<double> c = cam.R * cv::Mat(X) + cam.T;
  const double x = c(0) / c(2), y = c(1) / c(2), r2 = x * x + y * y;
  const double radial = 1 + kK1 * r2 + kK2 * r2 * r2 + kK3 * r2 * r2 * r2;
  const double xd = x * radial + 2 * kP1 * x * y + kP2 * (r2 + 2 * x * x);
  const double yd = y * radial + kP1 * (r2 + 2 * y * y) + 2 * kP2 * x * y;
  return {cam.K(0, 0) * xd + cam.K(0, 2), cam.K(1, 1) * yd + cam.K(1, 2)};
}

std::vector<cv::Point3d> board_points() {
  std::vector<cv::Point3d> points;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 5; ++j) points.emplace_back(-150 + 60 * i, -120 + 60 * j, 10.0 * (i % 2));
  return points;
}

TEST(DistortCamera, ProjectsThroughTheLensModelAndSolvesPnPWithIt) {
  DistortCamera cam = distorted_camera();
  double largest_shift = 0.0;
  std::vector<cv::Point3f> object;
  std::vector<cv::Point2f> image;
  for (const cv::Point3d& X : board_points()) {
    const cv::Point2d got = cam.project_forw(X), want = distorted_pixel(cam, vec(X));
    EXPECT_LT(cv::norm(got - want), 2e-3);
    largest_shift = std::max(largest_shift, cv::norm(got - cam.PinHoleCamera::project_forw(X)));
    object.emplace_back(X);
    image.emplace_back(got);
  }
  EXPECT_GT(largest_shift, 5.0);  // the distortion is real, not negligible

  cv::Vec3d expected_rvec;
  cv::Rodrigues(cam.R, expected_rvec);
  for (bool ransac : {false, true}) {
    cv::Mat rvec, tvec;
    ASSERT_TRUE(ransac ? cam.solvePnPRansac(rvec, tvec, image, object)
                       : cam.solvePnP(rvec, tvec, image, object));
    EXPECT_LT(cv::norm(cv::Vec3d(rvec) - expected_rvec), 1e-3);
    EXPECT_LT(cv::norm(cv::Vec3d(tvec) - kDistortT), 0.1);
  }

  cam.D.release();
  for (const cv::Point3d& X : board_points())
    EXPECT_LT(cv::norm(cam.project_forw(X) - cam.PinHoleCamera::project_forw(X)), 1e-3);
}

TEST(DistortCamera, RefusesInverseProjection) {
  DistortCamera cam = distorted_camera();
  for (int call = 0; call < 2; ++call) {
    try {
      call == 0 ? cam.project_back({318, 243}) : cam.get_sight_vector({318, 243});
      ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "Invert projection is not available in DistortCamera.");
    }
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
  EXPECT_LT(max_diff(back.D, cam.D), 1e-15);
  EXPECT_LT(max_diff(back.P, cam.P), 1e-9);
  cv::FileStorage closed;
  EXPECT_FALSE(cam.save(&closed));
  EXPECT_FALSE(back.load(&closed));
}

// The own file carries no "CameraName", so reading it back by itself finds
// no keys under the empty name and OpenCV rejects the missing projection.
TEST_F(Camera, DistortOwnFileLacksCameraNameAndDoesNotLoadBackAlone) {
  ASSERT_TRUE(distorted_camera("cam0").save(nullptr));
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

// --- undistortion -----------------------------------------------------------

const cv::Size kSize(160, 120);

// A distorted source camera at the origin and the ideal camera rotated by
// Rrect about the same centre, as one camera of a rectified pair.
struct Rig {
  DistortCamera source{kSize, "raw"};
  UndistortCamera ideal{kSize, "cam0"};
  cv::Mat_<double> Rrect = rotation(0.02, -0.03, 0.01);

  Rig() {
    cv::Mat_<double> raw = projection(intrinsics(150, 152, 81, 58), cv::Mat_<double>::eye(3, 3),
                                      cv::Vec3d(0, 0, 0));
    source.setPPM(raw);
    source.D = (cv::Mat_<double>(1, 5) << -0.3, 0.1, 0.001, -0.002, -0.02);
    cv::Mat_<double> rectified = projection(intrinsics(140, 140, 80, 60), Rrect, cv::Vec3d(0, 0, 0));
    ideal.setPPM(rectified);
    ideal.use_float_map = 1;
    ideal.interpolation = 1;
    ideal.initMap(source, Rrect);
  }
};

// Float maps of the camera's size; where they send the ideal pixels is
// checked end to end by scans of raw captures through a calibration.
TEST(UndistortCamera, InitMapMakesFloatMapsOnly) {
  Rig rig;
  ASSERT_EQ(rig.ideal.map1.type(), CV_32FC1);
  ASSERT_EQ(rig.ideal.map1.size(), kSize);
  ASSERT_EQ(rig.ideal.map2.size(), kSize);
  rig.ideal.use_float_map = 0;
  EXPECT_THROW(rig.ideal.initMap(rig.source, rig.Rrect), cv::Exception);
}

TEST(UndistortCamera, RemapFillsOnlyAnEmptyDestination) {
  UndistortCamera cam(cv::Size(4, 2), "c");
  cam.fill = cv::Scalar(200);
  cam.map1 = (cv::Mat_<float>(2, 4) << 0, 1, -50, -50, 2, 3, 99, 3);
  cam.map2 = (cv::Mat_<float>(2, 4) << 0, 0, 0, 0, 1, 1, 1, 1);
  cv::Mat src(2, 4, CV_8UC1, cv::Scalar(50)), fresh;
  cam.remap(src, fresh);
  EXPECT_EQ(max_diff(fresh, (cv::Mat_<uchar>(2, 4) << 50, 50, 200, 200, 50, 50, 200, 50)), 0.0);
  cv::Mat prefilled(2, 4, CV_8UC1, cv::Scalar(7));
  uchar* buffer = prefilled.data;
  cam.remap(src, prefilled);
  EXPECT_EQ(prefilled.data, buffer);
  EXPECT_EQ(max_diff(prefilled, (cv::Mat_<uchar>(2, 4) << 50, 50, 7, 7, 50, 50, 7, 50)), 0.0);
}

// The selector is the system's own: 3 means Lanczos, unknown values linear.
TEST(UndistortCamera, InterpolationSelectorMapsToOpenCVMethods) {
  cv::Mat src(24, 24, CV_32FC1);
  cv::randu(src, 0, 255);
  UndistortCamera cam(cv::Size(16, 16), "c");
  cam.map1.create(16, 16, CV_32FC1);
  cam.map2.create(16, 16, CV_32FC1);
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) {
      cam.map1.at<float>(y, x) = 4.3f + x * 0.9f;
      cam.map2.at<float>(y, x) = 3.6f + y * 1.1f;
    }
  auto remapped = [&](int code) {  // by OpenCV's method `code`, or by the camera for -1
    cv::Mat out(16, 16, CV_32FC1, cv::Scalar(0));
    if (code < 0)
      cam.remap(src, out);
    else
      cv::remap(src, out, cam.map1, cam.map2, code, cv::BORDER_TRANSPARENT);
    return out;
  };
  for (auto [selector, code] : {std::pair{0, cv::INTER_NEAREST}, {1, cv::INTER_LINEAR},
                                {2, cv::INTER_CUBIC}, {3, cv::INTER_LANCZOS4},
                                {7, cv::INTER_LINEAR}, {-1, cv::INTER_LINEAR}}) {
    cam.interpolation = selector;
    EXPECT_EQ(max_diff(remapped(-1), remapped(code)), 0.0) << "selector " << selector;
  }
  ASSERT_GT(max_diff(remapped(cv::INTER_LANCZOS4), remapped(cv::INTER_LINEAR)), 1.0);
}

TEST(UndistortCamera, CopiesOwnTheirMaps) {
  Rig rig;
  rig.ideal.roi = cv::Rect(1, 2, 3, 4);
  rig.ideal.fill = cv::Scalar(9);
  UndistortCamera copied(rig.ideal), assigned(cv::Size(1, 1), "x");
  assigned = rig.ideal;
  for (UndistortCamera* c : {&copied, &assigned}) {
    EXPECT_NE(c->map1.data, rig.ideal.map1.data);
    EXPECT_NE(c->map2.data, rig.ideal.map2.data);
    EXPECT_EQ(max_diff(c->map1, rig.ideal.map1), 0.0);
    EXPECT_EQ(c->roi, rig.ideal.roi);
    EXPECT_EQ(c->fill, rig.ideal.fill);
    EXPECT_EQ(c->use_float_map + c->interpolation, 2);
  }
}

TEST_F(Camera, UndistortRoundTripWithMapFile) {
  Rig rig;
  rig.ideal.roi = cv::Rect(3, 4, 150, 110);
  cv::FileStorage out(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  ASSERT_TRUE(rig.ideal.save(&out, "rect0.map"));
  const std::string text = out.releaseAndGetString();
  EXPECT_NE(text.find("cam0_roi"), std::string::npos);
  // Two float records, each 16 header bytes + 160*120*4 data bytes.
  EXPECT_EQ(fs::file_size("rect0.map"), 2u * (16u + 160u * 120u * 4u));

  cv::FileStorage in(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
  UndistortCamera back(cv::Size(), "cam0");
  ASSERT_TRUE(back.load(&in, "rect0.map"));
  EXPECT_EQ(back.size, kSize);
  EXPECT_EQ(back.roi, cv::Rect(3, 4, 150, 110));
  EXPECT_LT(max_diff(back.P, rig.ideal.P), 1e-9);
  EXPECT_EQ(max_diff(back.map1, rig.ideal.map1), 0.0);
  EXPECT_EQ(max_diff(back.map2, rig.ideal.map2), 0.0);
}

TEST_F(Camera, UndistortMissingEmptyOrCorruptMapFiles) {
  Rig rig;
  cv::FileStorage out(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  ASSERT_TRUE(rig.ideal.save(&out, ""));
  const std::string text = out.releaseAndGetString();
  auto load = [&](UndistortCamera& cam, const std::string& path) {
    cv::FileStorage in(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    return cam.load(&in, path);
  };
  UndistortCamera cam(cv::Size(), "cam0");
  cam.map1 = cv::Mat(2, 2, CV_32FC1, cv::Scalar(5));
  ASSERT_TRUE(load(cam, ""));
  EXPECT_EQ(cam.map1.size(), cv::Size(2, 2));  // maps untouched
  EXPECT_EQ(cam.size, kSize);

  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(load(cam, "absent.map"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "!!Warning!! Rectify map not found. You must do rectify and make map.\n");

  cv::FileStorage scratch(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  EXPECT_FALSE(UndistortCamera(kSize, "cam0").save(&scratch, "empty.map"));
  EXPECT_FALSE(rig.ideal.save(&scratch, "no/such/dir.map"));
  ASSERT_TRUE(rig.ideal.save(&scratch, "cut.map"));
  fs::resize_file("cut.map", fs::file_size("cut.map") - 100);
  EXPECT_FALSE(load(cam, "cut.map"));
}

// Unlike DistortCamera, the own file loads back: neither direction touches
// "CameraName". A roi that is not four integers loads as zeros.
TEST_F(Camera, UndistortOwnFileLoadsBackAndRoiMustHaveFourEntries) {
  Rig rig;
  rig.ideal.roi = cv::Rect(1, 2, 3, 4);
  ASSERT_TRUE(rig.ideal.save(nullptr, ""));
  EXPECT_TRUE(cv::FileStorage("cam0_param.yaml", cv::FileStorage::READ)["CameraName"].empty());
  UndistortCamera back(cv::Size(), "cam0");
  ASSERT_TRUE(back.load(nullptr, ""));
  EXPECT_EQ(back.name, "cam0");
  EXPECT_EQ(back.roi, cv::Rect(1, 2, 3, 4));

  cv::FileStorage fs("bad_roi.yaml", cv::FileStorage::WRITE);
  rig.ideal.PinHoleCamera::save(&fs);
  fs << "cam0_roi" << "[:" << 1 << 2 << 3 << "]";
  fs.release();
  fs.open("bad_roi.yaml", cv::FileStorage::READ);
  ASSERT_EQ(fs["cam0_roi"].size(), 3u);
  EXPECT_TRUE(back.load(&fs, ""));
  EXPECT_EQ(back.roi, cv::Rect());
  UndistortCamera nobody(cv::Size(), "nobody");
  EXPECT_FALSE(nobody.load(nullptr, ""));
}

// --- map records and pair tables ---------------------------------------------

std::string bytes_of(const cv::Mat& m) {
  return std::string(reinterpret_cast<const char*>(m.data), m.total() * m.elemSize());
}

std::string header(int type, int cols, int rows) {
  std::ostringstream os;
  for (int word : {type, cols, rows}) save_element<int>(os, word);
  return os.str();
}

std::int32_t int_at(const std::string& s, size_t offset) {
  std::int32_t v;
  std::memcpy(&v, s.data() + offset, 4);
  return v;
}

TEST(MapRecord, FloatMapAtStreamStartHas16ByteHeaderAndNoTrailingPad) {
  cv::Mat map(480, 640, CV_32FC1);
  cv::randu(map, -10.0f, 700.0f);
  std::stringstream ss;
  ASSERT_TRUE(save_map(ss, map));
  const std::string file = ss.str();
  ASSERT_EQ(file.size(), 16u + 1228800u);
  EXPECT_EQ(int_at(file, 0), CV_32FC1);
  EXPECT_EQ(int_at(file, 4), 640);  // cols before rows
  EXPECT_EQ(int_at(file, 8), 480);
  EXPECT_EQ(int_at(file, 12), 0);
  EXPECT_EQ(file.substr(16), bytes_of(map));

  cv::Mat back;
  ASSERT_TRUE(load_map(ss, back));
  EXPECT_EQ(back.type(), CV_32FC1);
  EXPECT_EQ(bytes_of(back), bytes_of(map));
}

TEST(MapRecord, OddByteMapIsPaddedAndRecordsFollowEachOther) {
  cv::Mat odd = (cv::Mat_<uchar>(3, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  cv::Mat pairs(2, 3, CV_16SC2, cv::Scalar(-3, 1234));
  std::stringstream ss;
  ASSERT_TRUE(save_map(ss, odd));
  ASSERT_TRUE(save_map(ss, pairs));
  const std::string file = ss.str();
  // 16 header + 15 data + 1 pad, then 12 header + 4 pad + 24 data.
  ASSERT_EQ(file.size(), 32u + 40u);
  EXPECT_EQ(file.substr(16, 15), bytes_of(odd));
  EXPECT_EQ(file[31], '\0');
  EXPECT_EQ(int_at(file, 32), CV_16SC2);
  EXPECT_EQ(file.substr(48), bytes_of(pairs));

  cv::Mat a, b;
  ASSERT_TRUE(load_map(ss, a));
  ASSERT_TRUE(load_map(ss, b));
  EXPECT_EQ(a.type(), CV_8UC1);
  EXPECT_EQ(a.size(), cv::Size(5, 3));
  EXPECT_EQ(bytes_of(a), bytes_of(odd));
  EXPECT_EQ(b.type(), CV_16SC2);
  EXPECT_EQ(bytes_of(b), bytes_of(pairs));
}

// Padding follows the absolute position: after a 3-byte prefix the header
// ends at 15 and the data starts at 16, not at 3 + 16.
TEST(MapRecord, PaddingFollowsAbsoluteStreamPosition) {
  cv::Mat m = (cv::Mat_<float>(1, 3) << 1.5f, -2.0f, 3.25f);
  std::stringstream ss;
  ss.write("abc", 3);
  ASSERT_TRUE(save_map(ss, m));
  const std::string s = ss.str();
  ASSERT_EQ(s.size(), 32u);  // 3 + 12 header + 1 pad + 12 data + 4 pad
  EXPECT_EQ(int_at(s, 7), 3);
  EXPECT_EQ(s.substr(16, 12), bytes_of(m));

  ss.seekg(3);
  cv::Mat back;
  ASSERT_TRUE(load_map(ss, back));
  EXPECT_EQ(bytes_of(back), bytes_of(m));

  std::stringstream empty_out;
  cv::Mat empty;
  EXPECT_FALSE(save_map(empty_out, empty));
  EXPECT_TRUE(empty_out.str().empty());
}

// Corrupt headers fail cleanly, before any allocation, and a zero-sized
// header leaves the target matrix alone.
TEST(MapRecord, CorruptHeadersFailWithoutAllocating) {
  cv::Mat target(2, 2, CV_32FC1, cv::Scalar(42));
  const uchar* buffer = target.data;
  const std::string data(64, '\x01');
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"zero cols", header(CV_32FC1, 0, 10) + data},
      {"both negative", header(CV_32FC1, -4, -4) + data},
      {"billions of elements", header(CV_32FC1, 100000, 100000) + data},
      {"overflowing product", header(CV_64FC4, 2147483647, 2147483647) + data},
      {"more than the stream holds", header(CV_32FC1, 4, 5) + std::string(4, '\0') + data},
      {"invalid type", header(1 << 20, 2, 2) + data},
      {"short header", header(CV_32FC1, 2, 2).substr(0, 7)},
  };
  for (const auto& [what, bytes] : cases) {
    std::istringstream is(bytes);
    EXPECT_FALSE(load_map(is, target)) << what;
    EXPECT_EQ(target.data, buffer) << what;
    EXPECT_EQ(target.at<float>(1, 1), 42.0f) << what;
  }
  std::istringstream zero(header(CV_32FC1, 0, 10) + data);
  ASSERT_FALSE(load_map(zero, target));
  EXPECT_EQ(zero.tellg(), 12);
}

struct Pair {
  UndistortCamera cams[2] = {UndistortCamera(cv::Size(5, 3), "cam0"),
                             UndistortCamera(cv::Size(5, 3), "cam1")};
};

cv::Mat ramp(int rows, int cols, float start, int type) {
  cv::Mat m(rows, cols, CV_32FC1);
  for (int i = 0; i < rows * cols; ++i) m.at<float>(i / cols, i % cols) = start + i;
  cv::Mat converted;
  m.convertTo(converted, type);
  return converted;
}

TEST(RectifyTables, XMapsFirstFloatRecordsAndRoundTrip) {
  Pair pair;
  pair.cams[0].map1 = ramp(3, 5, 100, CV_32FC1);
  pair.cams[1].map1 = ramp(3, 5, 200, CV_64FC1);  // written as float
  // A view with a row stride wider than its row.
  cv::Mat wide = ramp(3, 8, 300, CV_32FC1);
  pair.cams[0].map2 = wide.colRange(1, 6);
  pair.cams[1].map2 = ramp(3, 5, 400, CV_32FC1);
  std::stringstream ss;
  SaveRectifyTables(pair.cams, ss);
  const std::string s = ss.str();
  // Each record: count 4 + pad 4 + 60 data + pad 4 = 72 bytes.
  ASSERT_EQ(s.size(), 4u * 72u);
  const float firsts[4] = {100, 200, 301, 400};
  for (int r = 0; r < 4; ++r) {
    EXPECT_EQ(int_at(s, 72 * r), 15);
    float first, last;
    std::memcpy(&first, s.data() + 72 * r + 8, 4);
    std::memcpy(&last, s.data() + 72 * r + 8 + 56, 4);
    EXPECT_EQ(first, firsts[r]) << r;
    EXPECT_EQ(last, firsts[r] + (r == 2 ? 14 + 6 : 14)) << r;  // stride honoured
  }

  Pair back;
  ASSERT_TRUE(LoadRectifyTables(back.cams, ss));
  for (int c = 0; c < 2; ++c) {
    EXPECT_EQ(back.cams[c].map1.type(), CV_32FC1);
    cv::Mat m1, m2;
    pair.cams[c].map1.convertTo(m1, CV_32F);
    pair.cams[c].map2.convertTo(m2, CV_32F);
    EXPECT_EQ(cv::norm(back.cams[c].map1, m1, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(back.cams[c].map2, m2, cv::NORM_INF), 0.0);
  }
}

TEST(RectifyTables, MismatchedOrTruncatedTablesStopLoading) {
  Pair pair;
  for (UndistortCamera& cam : pair.cams) {
    cam.map1 = ramp(3, 5, 1, CV_32FC1);
    cam.map2 = ramp(3, 5, 2, CV_32FC1);
  }
  std::stringstream ss;
  SaveRectifyTables(pair.cams, ss);
  const std::string table = ss.str();

  Pair wrong_size;
  wrong_size.cams[1].size = cv::Size(4, 3);
  std::istringstream is(table);
  EXPECT_FALSE(LoadRectifyTables(wrong_size.cams, is));
  EXPECT_EQ(wrong_size.cams[0].map1.size(), cv::Size(5, 3));  // read before the failure
  EXPECT_TRUE(wrong_size.cams[1].map1.empty());
  EXPECT_TRUE(wrong_size.cams[0].map2.empty());

  Pair truncated;
  std::istringstream cut(table.substr(0, table.size() - 20));
  EXPECT_FALSE(LoadRectifyTables(truncated.cams, cut));
  EXPECT_TRUE(truncated.cams[1].map2.empty());

  Pair huge;
  for (UndistortCamera& cam : huge.cams) cam.size = cv::Size(200000, 200000);
  std::istringstream small(table);
  EXPECT_FALSE(LoadRectifyTables(huge.cams, small));

  cv::Mat wrong_type(3, 5, CV_64FC1);
  std::istringstream one(table);
  EXPECT_FALSE(_load_rtable(one, wrong_type));
}

// --- the stereo pair ----------------------------------------------------------

// The true cameras as a calibration delivers them: camera 0 in the world
// frame, camera 1's pose relative to camera 0.
struct TruePair {
  DistortCamera cams[2] = {DistortCamera(cv::Size(0, 0), "cam0"),
                           DistortCamera(cv::Size(0, 0), "cam1")};
  TruePair() {
    sl3d::calibrated_pair(sl3d::default_raw_cameras(sl3d::SimRig::scaled(320, 256)), cams);
  }
  StereoCamera rectified() {
    return StereoCamera(cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0), cv::Scalar(0));
  }
};

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
  StereoCamera pair = truth.rectified();
  EXPECT_TRUE(pair.is_horizontal_stereo());
  EXPECT_EQ(pair.cameras[0].name, "stereoL");
  for (const cv::Vec3d world :
       {cv::Vec3d(-120, 60, 950), cv::Vec3d(80, -40, 1200), cv::Vec3d(5, 5, 700)}) {
    const cv::Point2d pl = rectify_point(pair, truth.cams[0], 0, truth.cams[0].project_forw(point(world)));
    const cv::Point2d pr = rectify_point(pair, truth.cams[1], 1, truth.cams[1].project_forw(point(world)));
    EXPECT_NEAR(pl.y, pr.y, 1e-3) << "rectified rows differ";
    const cv::Vec3d expected(cv::Mat_<double>(pair.cam0_R2 * cv::Mat(world)));
    bool ok = false;
    double gap = -1.0;
    EXPECT_LT(cv::norm(pair.get3dposition_P(pl, pr, &ok) - expected), 0.05);
    EXPECT_LT(cv::norm(pair.get3dposition(pl, pr, gap) - expected), 0.05);
    EXPECT_LT(cv::norm(pair.get3dposition_Q(pl.x, pl.y, pl.x - pr.x) - expected), 0.05);
    EXPECT_TRUE(ok);
    EXPECT_LT(gap, 0.05);
    // The disparity of a point straight ahead at that distance, including
    // the offset of the two rectified principal points.
    const double offset = pair.cameras[0].K(0, 2) - pair.cameras[1].K(0, 2);
    EXPECT_NEAR(pair.convert_distance_to_disparity(expected[2]),
                pair.cameras[0].K(0, 0) * cv::norm(pair.camdis) / expected[2] + offset, 1e-6);
  }
}

TEST(StereoCamera, ParallelRaysAndSingularSystemsReportThemselves) {
  StereoCamera pair = TruePair().rectified();
  cv::Vec3d c0(0, 0, 0), c1(100, 0, 0);
  const cv::Vec3d s(0, 0, 1);
  double gap = 0.0;
  EXPECT_EQ(pair.position_from_sv(s, s, gap, c0, c1), cv::Vec3d(0, 0, 0));
  EXPECT_EQ(gap, DBL_MAX);
  // Zero projection matrices make the normal matrix singular.
  StereoCamera empty(cv::Size(10, 10));
  empty.cameras[0].P = cv::Mat_<double>::zeros(4, 4);
  empty.cameras[1].P = cv::Mat_<double>::zeros(4, 4);
  bool ok = true;
  EXPECT_EQ(empty.get3dposition_P({1, 1}, {1, 1}, &ok), cv::Vec3d(0, 0, 0));
  EXPECT_FALSE(ok);
  EXPECT_EQ(empty.get3dposition_P({1, 1}, {1, 1}, nullptr), cv::Vec3d(0, 0, 0));
}

TEST_F(Camera, StereoYamlFormReloadsTheSamePair) {
  StereoCamera pair = TruePair().rectified();
  ASSERT_TRUE(pair.save(dir_.string()));
  EXPECT_TRUE(fs::exists("stereo_param.yaml"));
  EXPECT_TRUE(fs::exists("rect0.map"));
  StereoCamera loaded(cv::Size(0, 0));
  ASSERT_TRUE(loaded.load(dir_.string()));
  EXPECT_EQ(max_diff(loaded.Q, pair.Q), 0.0);
  EXPECT_EQ(loaded.oldcamSize, pair.oldcamSize);
  EXPECT_EQ(max_diff(loaded.cam1_R2, pair.cam1_R2), 0.0);
  EXPECT_LT(max_diff(loaded.camdis, pair.camdis), 1e-9);
  EXPECT_EQ(max_diff(loaded.cameras[1].map1, pair.cameras[1].map1), 0.0);
}

TEST_F(Camera, StereoBinaryFormReloadsWithARecalculatedQ) {
  StereoCamera pair = TruePair().rectified();
  const auto load = [&] {
    return create_StereoCamera_from_Hmats(file("hmat0.dat"), file("hmat1.dat"),
                                          file("rect.param"), pair.cameras[0].size,
                                          cv::Scalar(0), cv::Scalar(0));
  };
  ASSERT_TRUE(store_StereoCamera_to_Hmats(&pair, file("hmat0.dat"), file("hmat1.dat"),
                                          file("rect.param")));
  EXPECT_EQ(fs::file_size("hmat0.dat"), 96u);
  StereoCamera* loaded = load();
  ASSERT_NE(loaded, nullptr);
  // Q rebuilt from the projection matrices reprojects as the rectifier's Q.
  for (const cv::Vec3d xyd : {cv::Vec3d(10, 20, 30), cv::Vec3d(200, 100, 12.5)}) {
    const cv::Vec3d a = pair.get3dposition_Q(xyd[0], xyd[1], xyd[2]);
    EXPECT_LT(cv::norm(a - loaded->get3dposition_Q(xyd[0], xyd[1], xyd[2])), 1e-6 * cv::norm(a));
  }
  delete loaded;
  // The files are read in order; the first one missing ends the attempt.
  fs::remove("hmat1.dat");
  EXPECT_EQ(load(), nullptr);
}

TEST_F(Camera, StereoCameraFilesAreRectifiedOnLoad) {
  TruePair truth;
  for (int i = 0; i < 2; ++i) {
    cv::FileStorage out(file("cam" + std::to_string(i) + "_param.yaml"), cv::FileStorage::WRITE);
    ASSERT_TRUE(truth.cams[i].save(&out));
  }
  const auto create = [](const std::vector<std::string>& files) {
    return create_StereoCamera(files, cv::Size(0, 0), -1.0, 0, cv::Scalar(0), cv::Scalar(0));
  };
  StereoCamera* pair = create({file("cam0_param.yaml"), file("cam1_param.yaml")});
  ASSERT_NE(pair, nullptr);
  EXPECT_LT(max_diff(pair->Q, truth.rectified().Q), 1e-6);
  delete pair;
  EXPECT_EQ(create({}), nullptr);
  EXPECT_EQ(create({file("missing.yaml")}), nullptr);
}

struct Case {
  std::string text;
  const char* error;  // null: accepted
};

TEST(YamlReaderTest, AcceptsTheSubsetAndRefusesTheRestWithTheLine) {
  const std::string nul("a: 1\nb:\0 3\n", 11);
  const Case cases[] = {
      {"", nullptr},
      {"%YAML:1.0\n---\n# comment\nk: 1 # trailing\n...\n", nullptr},
      {"%YAML 1.2\nm: !!opencv-matrix\n   rows: 1\n   cols: 3\n   dt: d\n   data: [ 1., -2e-3,\n      .5 ]\n",
       nullptr},
      {"size:\n  - 640\n  - 512\nname: \"a b\"\nword: cam0\n", nullptr},
      {nul, "line 2: NUL byte"},
      {"%YAML:1.0\n---%YAML1:0\n-.--\ncam0_size: [ %8,\ncam1", "line 2: expected 'key: value'"},
      {"- 1\n- 2\n", "line 1: expected 'key: value', found a sequence entry"},
      {"just a scalar\n", "line 1: expected 'key: value'"},
      {"{\"a\": 1}\n", "line 1: flow maps ({...}) and JSON are not supported"},
      {"a: 1\na: 2\n", "line 2: 'a' given twice"},
      {"a: [1, 2\n", "line 1: unclosed '['"},
      {"a: [1, [2]]\n", "nested collections"},
      {"a:\n\tb: 1\n", "line 2: tab in the indentation"},
      {"a: 1\n  b: 2\n", "line 2: unexpected indentation"},
      {"a:\nb: 1\n", "line 1: 'a' has no value"},
      {"a: &x 1\n", "anchors"},
      {"%TAG ! x\na: 1\n", "unsupported directive"},
      {"a: 1\n---\nb: 2\n", "second document"},
      {"a: \"unclosed\n", "unclosed quote"},
      {"a: 1\x01\n", "control character"},
      {"m: !!opencv-matrix\n  rows: ...4\n  cols: 1\n  dt: d\n  data: [1]\n", "line 2: '...4'"},
      {"m: !!opencv-matrix\n  rows: 2\n  cols: 2\n  dt: d\n  data: [1]\n", "2 x 2 does not match"},
      {"m: !!other\n  rows: 1\n  cols: 1\n  dt: d\n  data: [1]\n", "line 1: unsupported tag"},
      {"m:\n  rows: Z3\n  cols: 1\n  dt: d\n  data: [1]\n", "a matrix needs integer rows"},
      {"m: !!opencv-matrix\n  rows: 1\n  cols: 1\n  dt: 3d\n  data: [1, 2, 3]\n", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.c_str());
    sl3d::YamlNode root;
    std::string error;
    EXPECT_EQ(sl3d::parse_yaml(c.text, root, error), c.error == nullptr) << error;
    if (c.error != nullptr) EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

TEST(YamlReaderTest, NestingIsBounded) {
  std::string deep;
  for (int level = 0; level < 40; ++level) deep += std::string(2 * level, ' ') + "k:\n";
  deep += std::string(80, ' ') + "v: 1\n";
  sl3d::YamlNode root;
  std::string error;
  EXPECT_FALSE(sl3d::parse_yaml(deep, root, error));
  EXPECT_NE(error.find("deeper than 16"), std::string::npos) << error;
}

TEST(YamlReaderTest, ScalarsKeepTheirKind) {
  sl3d::YamlNode root;
  std::string error;
  ASSERT_TRUE(sl3d::parse_yaml("i: -12\nr: 1.5e3\nn: .NaN\ns: \"12\"\nw: d\n", root, error));
  EXPECT_TRUE(root.find("i")->is_integer());
  EXPECT_TRUE(root.find("r")->is_number());
  EXPECT_FALSE(root.find("r")->is_integer());
  EXPECT_TRUE(root.find("n")->is_number());
  EXPECT_FALSE(root.find("s")->is_number());  // quoted: a string
  EXPECT_EQ(root.find("s")->text, "12");
  EXPECT_FALSE(root.find("w")->is_number());
  EXPECT_EQ(root.find("missing"), nullptr);
}

std::string temp_path(const char* name) {
  return ::testing::TempDir() + "yaml_reader_test_" + name;
}

// What OpenCV reads through the reader is what OpenCV wrote, bit for bit.
TEST(YamlReaderTest, StorageReadsACameraFileAsWritten) {
  DistortCamera cam(cv::Size(640, 512), "cam0");
  cam.K = (cv::Mat_<double>(3, 3) << 700.123456789, 0, 320.5, 0, 701.987654321, 255.25, 0, 0, 1);
  cam.D = (cv::Mat_<double>(1, 5) << -0.12, 0.08, 1e-4, -2e-4, 0.0);
  cam.compose();
  const std::string path = temp_path("cam0_param.yaml");
  {
    cv::FileStorage out(path, cv::FileStorage::WRITE);
    ASSERT_TRUE(cam.save(&out));
  }
  cv::FileStorage in;
  std::string error;
  ASSERT_TRUE(sl3d::open_yaml_storage(path, in, &error)) << error;
  DistortCamera back(cv::Size(0, 0), "cam0");
  ASSERT_TRUE(back.load(&in));
  EXPECT_EQ(back.size, cam.size);
  EXPECT_EQ(cv::norm(back.P, cam.P, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(back.D, cam.D, cv::NORM_INF), 0.0);
  std::remove(path.c_str());
}

TEST(YamlReaderTest, FilesThatCannotBeReadAreNamedProblems) {
  const std::string big = temp_path("big.yaml");
  {
    std::ofstream out(big);
    out << "a: 1\n" << std::string(sl3d::kMaxYamlBytes, '#');
  }
  const struct {
    std::string path;
    const char* error;
  } cases[] = {{temp_path("missing.yaml"), "no such file"},
               {::testing::TempDir(), "not a regular file"},
               {big, "larger than 1 MiB"}};
  for (const auto& c : cases) {
    cv::FileStorage storage;
    std::string error;
    EXPECT_FALSE(sl3d::open_yaml_storage(c.path, storage, &error)) << c.path;
    EXPECT_FALSE(storage.isOpened());
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
  std::remove(big.c_str());
}

}  // namespace
