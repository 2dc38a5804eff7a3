// The camera models against cameras made from known parts: the pin-hole's
// deliberately stale centre, the lens model, the undistortion maps and
// their binary records, the stereo pair against the virtual sensor's true
// cameras, and the stored forms of single cameras, read through the
// library's own YAML reader, whose refusals name the line. Poses, rays,
// triangulation and the stereo pair's stored forms are checked end to end
// where calibration directories are written and scanned with.

#include <unistd.h>

#include <cfloat>
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

// Projection records are 96 native doubles, back to back in one stream; a
// short record leaves the camera as it was.
TEST_F(Camera, HmatIs96NativeDoublesAndRoundTripsBitExactly) {
  PinHoleCamera cams[2] = {posed_camera("cam0"), PinHoleCamera(cv::Size(640, 480), "cam1")};
  cv::Mat_<double> other =
      projection(intrinsics(1000, 1000, 300, 200), rotation(0, 0.1, 0), cv::Vec3d(-100, 0, 0));
  cams[1].setPPM(other);
  {
    std::ofstream os("pair.dat", std::ios::binary);
    ASSERT_TRUE(cams[0].save_hmat(os) && cams[1].save_hmat(os));
  }
  ASSERT_EQ(fs::file_size("pair.dat"), 192u);
  std::ifstream raw("pair.dat", std::ios::binary);
  double values[24];
  raw.read(reinterpret_cast<char*>(values), sizeof values);
  for (int i = 0; i < 24; ++i)
    EXPECT_EQ(std::memcmp(&values[i], &cams[i / 12].P(i % 12 / 4, i % 4), 8), 0) << i;

  std::ifstream is("pair.dat", std::ios::binary);
  PinHoleCamera back(cv::Size(), "back");
  for (const PinHoleCamera& cam : cams) {
    ASSERT_TRUE(back.load_hmat(is));
    EXPECT_EQ(std::memcmp(back.P.ptr(), cam.P.ptr(), 96), 0);
  }
  EXPECT_LT(max_diff(back.K, cams[1].K), 1e-9);
  fs::resize_file("pair.dat", 150);
  std::ifstream short_is("pair.dat", std::ios::binary);
  ASSERT_TRUE(back.load_hmat(short_is));
  EXPECT_FALSE(back.load_hmat(short_is));
  EXPECT_EQ(std::memcmp(back.P.ptr(), cams[0].P.ptr(), 96), 0);
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

TEST(DistortCamera, ProjectsThroughTheLensModelAndSolvesPnPWithIt) {
  DistortCamera cam = distorted_camera();
  double largest_shift = 0.0;
  std::vector<cv::Point3f> object;
  std::vector<cv::Point2f> image;
  for (int i = 0; i < 30; ++i) {  // a 6 x 5 board, every other column raised
    const cv::Point3d X(-150 + 60 * (i / 5), -120 + 60 * (i % 5), 10.0 * (i / 5 % 2));
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

// Float maps of the camera's size (integer ones OpenCV refuses); where they
// send the ideal pixels is checked end to end by scans of raw captures
// through a calibration. Copies get maps of their own.
TEST(UndistortCamera, InitMapMakesFloatMapsAndCopiesOwnThem) {
  Rig rig;
  ASSERT_EQ(rig.ideal.map1.type(), CV_32FC1);
  ASSERT_EQ(rig.ideal.map1.size(), kSize);
  ASSERT_EQ(rig.ideal.map2.size(), kSize);
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
  rig.ideal.use_float_map = 0;
  EXPECT_THROW(rig.ideal.initMap(rig.source, rig.Rrect), cv::Exception);
}

// The interpolation selector is the system's own (3 means Lanczos, unknown
// values linear). Pixels mapped from outside the source keep what the
// destination held: `fill` only when remap allocates the destination.
TEST(UndistortCamera, RemapInterpolatesBySelectorAndFillsOnlyAFreshDestination) {
  cv::Mat src(16, 16, CV_32FC1);  // a fresh destination takes the source's size
  cv::randu(src, 0, 255);
  UndistortCamera cam(cv::Size(16, 16), "c");
  cam.fill = cv::Scalar(-1);
  cam.map1.create(16, 16, CV_32FC1);
  cam.map2.create(16, 16, CV_32FC1);
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) {
      cam.map1.at<float>(y, x) = x == 15 ? -50.0f : 1.3f + x * 0.8f;  // the last column: outside
      cam.map2.at<float>(y, x) = 0.6f + y * 0.9f;
    }
  const auto by_opencv = [&](int code, double initial) {
    cv::Mat out(16, 16, CV_32FC1, cv::Scalar(initial));
    cv::remap(src, out, cam.map1, cam.map2, code, cv::BORDER_TRANSPARENT);
    return out;
  };
  for (auto [selector, code] : {std::pair{0, cv::INTER_NEAREST}, {1, cv::INTER_LINEAR},
                                {2, cv::INTER_CUBIC}, {3, cv::INTER_LANCZOS4},
                                {7, cv::INTER_LINEAR}, {-1, cv::INTER_LINEAR}}) {
    SCOPED_TRACE(selector);
    cam.interpolation = selector;
    cv::Mat prefilled(16, 16, CV_32FC1, cv::Scalar(7)), fresh;
    const uchar* buffer = prefilled.data;
    cam.remap(src, prefilled);
    EXPECT_EQ(prefilled.data, buffer);
    EXPECT_EQ(max_diff(prefilled, by_opencv(code, 7)), 0.0);
    cam.remap(src, fresh);
    EXPECT_EQ(max_diff(fresh, by_opencv(code, -1)), 0.0);
  }
  ASSERT_GT(max_diff(by_opencv(cv::INTER_LANCZOS4, 0), by_opencv(cv::INTER_LINEAR, 0)), 1.0);
}

// --- own files and shared storages ------------------------------------------

// Each kind writes "<name>_param.yaml" when handed no storage. Only the
// pin-hole writes "CameraName", which loading by itself takes as the new
// name; so the distorting camera's own file deliberately does not load back
// alone (no keys under the empty name), the undistorting one's does.
TEST_F(Camera, OwnFilesOfEachKind) {
  PinHoleCamera pin = posed_camera("pin");
  Rig rig;
  rig.ideal.roi = cv::Rect(1, 2, 3, 4);
  ASSERT_TRUE(pin.save(nullptr) && distorted_camera("lens").save(nullptr) &&
              rig.ideal.save(nullptr, ""));
  for (const std::string name : {"pin", "lens", "cam0"}) {
    cv::FileStorage fs(name + "_param.yaml", cv::FileStorage::READ);
    EXPECT_EQ(fs["CameraName"].empty(), name != "pin") << name;
    EXPECT_EQ(fs[name + "_size"].size(), 2u) << name;
  }
  PinHoleCamera pin_back(cv::Size(1, 1), "pin");
  ASSERT_TRUE(pin_back.load(nullptr));
  EXPECT_EQ(pin_back.name, "pin");
  EXPECT_EQ(pin_back.size, cv::Size(640, 480));
  EXPECT_LT(max_diff(pin_back.P, pin.P), 1e-9);
  EXPECT_LT(max_diff(pin_back.RT_inv, pin.RT_inv), 1e-9);
  DistortCamera lens_back(cv::Size(), "lens");
  EXPECT_THROW(lens_back.load(nullptr), cv::Exception);
  EXPECT_EQ(lens_back.name, "");
  UndistortCamera ideal_back(cv::Size(), "cam0");
  ASSERT_TRUE(ideal_back.load(nullptr, ""));
  EXPECT_EQ(ideal_back.name, "cam0");
  EXPECT_EQ(ideal_back.roi, rig.ideal.roi);

  PinHoleCamera pin_missing(cv::Size(3, 2), "nobody");
  DistortCamera lens_missing(cv::Size(3, 2), "nobody");
  UndistortCamera ideal_missing(cv::Size(3, 2), "nobody");
  EXPECT_FALSE(pin_missing.load(nullptr));
  EXPECT_FALSE(lens_missing.load(nullptr));
  EXPECT_FALSE(ideal_missing.load(nullptr, ""));
  EXPECT_EQ(pin_missing.size, cv::Size(3, 2));
}

// The stored K/R/T are informative: "_P" decides. A size that is not two
// integers loads as 0x0, a roi that is not four as zeros. The own file is
// chosen by the old name, the keys by the "CameraName" inside it.
TEST_F(Camera, OwnFileProjectionWinsAndOddSequencesLoadAsZeros) {
  {
    cv::FileStorage fs("left_param.yaml", cv::FileStorage::WRITE);
    fs << "CameraName" << "right" << "right_size" << "[:" << 640 << 480 << 1 << "]";
    cv::write(fs, "right_K", cv::Mat(cv::Mat::eye(3, 3, CV_64F) * 7));
    cv::write(fs, "right_P", cv::Mat(posed_camera().P.rowRange(0, 3)));
    fs << "right_roi" << "[:" << 1 << 2 << 3 << "]";
  }
  PinHoleCamera cam(cv::Size(9, 9), "left");
  ASSERT_TRUE(cam.load(nullptr));
  EXPECT_EQ(cam.name, "right");
  EXPECT_EQ(cam.size, cv::Size(0, 0));
  EXPECT_LT(max_diff(cam.K, kK), 1e-9);
  EXPECT_LT(max_diff(cam.T, cv::Mat(kT)), 1e-9);
  cv::FileStorage fs("left_param.yaml", cv::FileStorage::READ);
  UndistortCamera ideal(cv::Size(), "right");
  ideal.roi = cv::Rect(1, 1, 1, 1);
  ASSERT_TRUE(ideal.load(&fs, ""));
  EXPECT_EQ(ideal.roi, cv::Rect());
}

// Cameras share a caller's storage as in the stereo file: keys after each
// name (plus "_D", "_roi"), no "CameraName". Read through the YAML reader,
// OpenCV gets back what it wrote, bit for bit. The maps go to a file of
// their own: two float records of 16 header bytes each.
TEST_F(Camera, SharedStorageAndMapFileRoundTrip) {
  DistortCamera lens = distorted_camera("cam1");
  Rig rig;
  rig.ideal.roi = cv::Rect(3, 4, 150, 110);
  {
    cv::FileStorage out("pair.yaml", cv::FileStorage::WRITE);
    ASSERT_TRUE(lens.save(&out) && rig.ideal.save(&out, "rect0.map"));
  }
  EXPECT_EQ(fs::file_size("rect0.map"), 2u * (16u + 160u * 120u * 4u));
  cv::FileStorage in;
  std::string error;
  ASSERT_TRUE(sl3d::open_yaml_storage("pair.yaml", in, &error)) << error;
  EXPECT_TRUE(in["CameraName"].empty());
  for (const char* key :
       {"cam1_size", "cam1_K", "cam1_R", "cam1_T", "cam1_P", "cam1_D", "cam0_size", "cam0_roi"})
    EXPECT_FALSE(in[key].empty()) << key;
  DistortCamera lens_back(cv::Size(), "cam1");
  UndistortCamera ideal_back(cv::Size(), "cam0");
  ASSERT_TRUE(lens_back.load(&in) && ideal_back.load(&in, "rect0.map"));
  EXPECT_EQ(lens_back.size, lens.size);
  EXPECT_EQ(max_diff(lens_back.P, lens.P), 0.0);
  EXPECT_EQ(max_diff(lens_back.D, lens.D), 0.0);
  EXPECT_EQ(ideal_back.size, kSize);
  EXPECT_EQ(ideal_back.roi, rig.ideal.roi);
  EXPECT_EQ(max_diff(ideal_back.map1, rig.ideal.map1), 0.0);
  EXPECT_EQ(max_diff(ideal_back.map2, rig.ideal.map2), 0.0);
}

// A missing map file only warns (the camera still projects) and an empty
// path leaves the maps alone; a cut map file, empty maps, an unwritable
// path and a closed storage fail.
TEST_F(Camera, MapFileAndStorageFailures) {
  Rig rig;
  cv::FileStorage out(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  ASSERT_TRUE(rig.ideal.save(&out, "rect0.map"));
  const std::string text = out.releaseAndGetString();
  const auto load = [&](UndistortCamera& cam, const std::string& path) {
    cv::FileStorage in(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    return cam.load(&in, path);
  };
  UndistortCamera cam(cv::Size(), "cam0");
  cam.map1 = cv::Mat(2, 2, CV_32FC1, cv::Scalar(5));
  ASSERT_TRUE(load(cam, ""));
  EXPECT_EQ(cam.map1.size(), cv::Size(2, 2));
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(load(cam, "absent.map"));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "!!Warning!! Rectify map not found. You must do rectify and make map.\n");
  fs::resize_file("rect0.map", fs::file_size("rect0.map") - 100);
  EXPECT_FALSE(load(cam, "rect0.map"));

  cv::FileStorage scratch(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY), closed;
  EXPECT_FALSE(UndistortCamera(kSize, "cam0").save(&scratch, "empty.map"));
  EXPECT_FALSE(rig.ideal.save(&scratch, "no/such/dir.map"));
  DistortCamera lens = distorted_camera();
  EXPECT_FALSE(lens.save(&closed));
  EXPECT_FALSE(lens.load(&closed));
}

// --- map records and pair tables ---------------------------------------------

std::string bytes_of(const cv::Mat& m) {
  const cv::Mat block = m.isContinuous() ? m : m.clone();
  return std::string(reinterpret_cast<const char*>(block.data), block.total() * block.elemSize());
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

// Records written back to back after a 3-byte prefix: type, cols, rows,
// zeros up to the next 8-byte file position, the data (a view's rows made
// continuous), zeros up to the next 8-byte position.
TEST(MapRecord, RecordsFollowEachOtherAlignedToTheFilePosition) {
  const cv::Mat wide = (cv::Mat_<float>(2, 4) << 1, 2, 3, 4, 5, 6, 7, 8);
  const struct {
    cv::Mat map;
    size_t header, data, end;
  } records[] = {
      {(cv::Mat_<float>(1, 3) << 1.5f, -2.0f, 3.25f), 3, 16, 32},
      {(cv::Mat_<uchar>(3, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15), 32, 48, 64},
      {cv::Mat(2, 3, CV_16SC2, cv::Scalar(-3, 1234)), 64, 80, 104},
      {wide.colRange(1, 3), 104, 120, 136},
  };
  std::stringstream ss;
  ss.write("abc", 3);
  for (const auto& r : records) {
    cv::Mat map = r.map;
    ASSERT_TRUE(save_map(ss, map));
  }
  const std::string s = ss.str();
  ASSERT_EQ(s.size(), 136u);
  for (const auto& r : records) {
    const size_t n = r.map.total() * r.map.elemSize(), data_end = r.data + n;
    EXPECT_EQ(int_at(s, r.header), r.map.type());
    EXPECT_EQ(int_at(s, r.header + 4), r.map.cols);  // cols before rows
    EXPECT_EQ(int_at(s, r.header + 8), r.map.rows);
    const size_t header_end = r.header + 12;
    EXPECT_EQ(s.substr(header_end, r.data - header_end), std::string(r.data - header_end, 0));
    EXPECT_EQ(s.substr(r.data, n), bytes_of(r.map));
    EXPECT_EQ(s.substr(data_end, r.end - data_end), std::string(r.end - data_end, 0));
  }
  ss.seekg(3);
  for (const auto& r : records) {
    cv::Mat back;
    ASSERT_TRUE(load_map(ss, back));
    EXPECT_EQ(back.type(), r.map.type());
    EXPECT_EQ(back.size(), r.map.size());
    EXPECT_EQ(bytes_of(back), bytes_of(r.map));
  }
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

// The pair table: all x maps first, as floats, each record count 4 + pad
// 4 + 60 data + pad 4 = 72 bytes, a view's row stride honoured. Loading
// stops at the first table that does not fit the cameras or the stream;
// what was read before stays.
TEST(RectifyTables, XMapsFirstAsFloatsAndMismatchesStopLoading) {
  Pair pair;
  pair.cams[0].map1 = ramp(3, 5, 100, CV_32FC1);
  pair.cams[1].map1 = ramp(3, 5, 200, CV_64FC1);
  pair.cams[0].map2 = ramp(3, 8, 300, CV_32FC1).colRange(1, 6);
  pair.cams[1].map2 = ramp(3, 5, 400, CV_32FC1);
  std::stringstream ss;
  SaveRectifyTables(pair.cams, ss);
  const std::string s = ss.str();
  ASSERT_EQ(s.size(), 4u * 72u);
  const float firsts[4] = {100, 200, 301, 400};
  for (int r = 0; r < 4; ++r) {
    EXPECT_EQ(int_at(s, 72 * r), 15);
    float first, last;
    std::memcpy(&first, s.data() + 72 * r + 8, 4);
    std::memcpy(&last, s.data() + 72 * r + 8 + 56, 4);
    EXPECT_EQ(first, firsts[r]) << r;
    EXPECT_EQ(last, firsts[r] + (r == 2 ? 14 + 6 : 14)) << r;
  }
  Pair back;
  ASSERT_TRUE(LoadRectifyTables(back.cams, ss));
  for (int c = 0; c < 2; ++c) {
    EXPECT_EQ(back.cams[c].map1.type(), CV_32FC1);
    cv::Mat m1, m2;
    pair.cams[c].map1.convertTo(m1, CV_32F);
    pair.cams[c].map2.convertTo(m2, CV_32F);
    EXPECT_EQ(max_diff(back.cams[c].map1, m1), 0.0);
    EXPECT_EQ(max_diff(back.cams[c].map2, m2), 0.0);
  }

  Pair wrong_size, huge;
  wrong_size.cams[1].size = cv::Size(4, 3);
  for (UndistortCamera& cam : huge.cams) cam.size = cv::Size(200000, 200000);
  std::istringstream is(s), small(s), one(s);
  EXPECT_FALSE(LoadRectifyTables(wrong_size.cams, is));
  EXPECT_EQ(wrong_size.cams[0].map1.size(), cv::Size(5, 3));
  EXPECT_TRUE(wrong_size.cams[1].map1.empty());
  EXPECT_FALSE(LoadRectifyTables(huge.cams, small));
  cv::Mat wrong_type(3, 5, CV_64FC1);
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

// Through the rectification of the true cameras a world point lands on one
// row in both images, at the disparity convert_distance_to_disparity gives
// for its depth in the rectified frame. Triangulation against the truth is
// checked by the scans through calibration directories.
TEST(StereoCamera, RectifiedMatchesShareARowAtTheDisparityOfTheirDepth) {
  TruePair truth;
  StereoCamera pair = truth.rectified();
  EXPECT_TRUE(pair.is_horizontal_stereo());
  EXPECT_EQ(pair.cameras[0].name, "stereoL");
  for (const cv::Vec3d world :
       {cv::Vec3d(-120, 60, 950), cv::Vec3d(80, -40, 1200), cv::Vec3d(5, 5, 700)}) {
    cv::Point2d p[2];
    for (int i = 0; i < 2; ++i)
      p[i] = rectify_point(pair, truth.cams[i], i, truth.cams[i].project_forw(point(world)));
    EXPECT_NEAR(p[0].y, p[1].y, 1e-3) << "rectified rows differ";
    const double depth = cv::Mat_<double>(pair.cam0_R2 * cv::Mat(world))(2);
    EXPECT_NEAR(p[0].x - p[1].x, pair.convert_distance_to_disparity(depth), 1e-3);
  }
}

// Parallel rays and a singular system report themselves (the sight-ray gap
// at its largest); no camera files, no pair.
TEST(StereoCamera, DegenerateInputsReportThemselves) {
  StereoCamera pair(cv::Size(10, 10));
  cv::Vec3d c0(0, 0, 0), c1(100, 0, 0);
  const cv::Vec3d s(0, 0, 1);
  double gap = 0.0;
  EXPECT_EQ(pair.position_from_sv(s, s, gap, c0, c1), cv::Vec3d(0, 0, 0));
  EXPECT_EQ(gap, DBL_MAX);
  pair.cameras[0].P = cv::Mat_<double>::zeros(4, 4);
  pair.cameras[1].P = cv::Mat_<double>::zeros(4, 4);
  bool ok = true;
  EXPECT_EQ(pair.get3dposition_P({1, 1}, {1, 1}, &ok), cv::Vec3d(0, 0, 0));
  EXPECT_FALSE(ok);
  EXPECT_EQ(pair.get3dposition_P({1, 1}, {1, 1}, nullptr), cv::Vec3d(0, 0, 0));
  for (const std::vector<std::string>& files : {std::vector<std::string>{}, {"missing.yaml"}})
    EXPECT_EQ(create_StereoCamera(files, cv::Size(0, 0), -1.0, 0, cv::Scalar(0), cv::Scalar(0)),
              nullptr);
}

// --- the YAML subset reader ----------------------------------------------------

// Refusals that the bad-input files of the tool's regression tests already
// pin are not repeated here.
TEST(YamlReader, AcceptsTheSubsetAndRefusesTheRestWithTheLine) {
  std::string deep;
  for (int level = 0; level < 40; ++level) deep += std::string(2 * level, ' ') + "k:\n";
  deep += std::string(80, ' ') + "v: 1\n";
  const struct {
    std::string text;
    const char* error;  // null: accepted
  } cases[] = {
      {"", nullptr},
      {"%YAML:1.0\n---\n# comment\nk: 1 # trailing\n...\n", nullptr},
      {"%YAML 1.2\nm: !!opencv-matrix\n   rows: 1\n   cols: 3\n   dt: d\n   data: [ 1., -2e-3,\n      .5 ]\n",
       nullptr},
      {"size:\n  - 640\n  - 512\nname: \"a b\"\nword: cam0\n", nullptr},
      {"m: !!opencv-matrix\n  rows: 1\n  cols: 1\n  dt: 3d\n  data: [1, 2, 3]\n", nullptr},
      {"{\"a\": 1}\n", "line 1: flow maps ({...}) and JSON are not supported"},
      {"a: 1\na: 2\n", "line 2: 'a' given twice"},
      {"a: [1, 2\n", "line 1: unclosed '['"},
      {"a: [1, [2]]\n", "nested collections"},
      {"a:\n\tb: 1\n", "line 2: tab in the indentation"},
      {"a: 1\n  b: 2\n", "line 2: unexpected indentation"},
      {"a:\nb: 1\n", "line 1: 'a' has no value"},
      {"a: &x 1\n", "anchors"},
      {"a: 1\n---\nb: 2\n", "second document"},
      {"a: \"unclosed\n", "unclosed quote"},
      {"a: 1\x01\n", "control character"},
      {"m:\n  rows: Z3\n  cols: 1\n  dt: d\n  data: [1]\n", "a matrix needs integer rows"},
      {deep, "deeper than 16"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60).c_str());
    sl3d::YamlNode root;
    std::string error;
    EXPECT_EQ(sl3d::parse_yaml(c.text, root, error), c.error == nullptr) << error;
    if (c.error != nullptr) EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

TEST(YamlReader, ScalarsKeepTheirKind) {
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

TEST_F(Camera, YamlFilesThatCannotBeReadAreNamedProblems) {
  std::ofstream("big.yaml") << "a: 1\n" << std::string(sl3d::kMaxYamlBytes, '#');
  const struct {
    std::string path;
    const char* error;
  } cases[] = {{"missing.yaml", "no such file"}, {".", "not a regular file"},
               {"big.yaml", "larger than 1 MiB"}};
  for (const auto& c : cases) {
    cv::FileStorage storage;
    std::string error;
    EXPECT_FALSE(sl3d::open_yaml_storage(c.path, storage, &error)) << c.path;
    EXPECT_FALSE(storage.isOpened());
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

}  // namespace
