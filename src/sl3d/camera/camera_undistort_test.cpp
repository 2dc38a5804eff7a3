#include <sl3d/camera/camera_undistort.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "camera_test_util.h"

namespace {

using sl3d::testing::intrinsics;
using sl3d::testing::projection;
using sl3d::testing::rotation;

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
    cv::Mat_<double> rectified =
        projection(intrinsics(140, 140, 80, 60), Rrect, cv::Vec3d(0, 0, 0));
    ideal.setPPM(rectified);
    ideal.use_float_map = 1;
    ideal.interpolation = 1;
    ideal.initMap(source, Rrect);
  }
};

// Smooth test image, a function of the ideal camera's pixel.
double pattern(double x, double y) { return 128 + 100 * std::sin(x / 7.0) * std::cos(y / 9.0); }

// Each map entry is where the ideal pixel's ray lands in the distorted image.
TEST(UndistortCamera, MapsSendIdealPixelsToWhereTheRayHitsTheRawImage) {
  Rig rig;
  ASSERT_EQ(rig.ideal.map1.type(), CV_32FC1);
  ASSERT_EQ(rig.ideal.map1.size(), kSize);
  ASSERT_EQ(rig.ideal.map2.size(), kSize);
  for (int v = 5; v < kSize.height; v += 23)
    for (int u = 3; u < kSize.width; u += 31) {
      cv::Point3d ray = rig.ideal.get_sight_vector(cv::Point2d(u, v));
      cv::Point2d raw = rig.source.project_forw(ray * 800.0);
      EXPECT_NEAR(rig.ideal.map1.at<float>(v, u), raw.x, 1e-2) << u << "," << v;
      EXPECT_NEAR(rig.ideal.map2.at<float>(v, u), raw.y, 1e-2) << u << "," << v;
    }

  rig.ideal.use_float_map = 0;
  EXPECT_THROW(rig.ideal.initMap(rig.source, rig.Rrect), cv::Exception);
}

// A raw image rendered through the inverse lens model comes out of remap as
// the undistorted pattern.
TEST(UndistortCamera, RemapUndistortsASyntheticRawImage) {
  Rig rig;
  std::vector<cv::Point2f> raw_pixels;
  for (int y = 0; y < kSize.height; ++y)
    for (int x = 0; x < kSize.width; ++x) raw_pixels.emplace_back(x, y);
  std::vector<cv::Point2f> ideal_pixels;
  cv::undistortPoints(raw_pixels, ideal_pixels, rig.source.K, rig.source.D, rig.Rrect,
                      rig.ideal.K);
  cv::Mat raw(kSize, CV_32FC1);
  for (size_t i = 0; i < raw_pixels.size(); ++i)
    raw.at<float>(raw_pixels[i]) = static_cast<float>(pattern(ideal_pixels[i].x, ideal_pixels[i].y));

  cv::Mat out;
  rig.ideal.remap(raw, out);
  int compared = 0;
  for (int v = 10; v < kSize.height - 10; ++v)
    for (int u = 10; u < kSize.width - 10; ++u) {
      const float mx = rig.ideal.map1.at<float>(v, u), my = rig.ideal.map2.at<float>(v, u);
      if (mx < 1 || my < 1 || mx > kSize.width - 2 || my > kSize.height - 2) continue;
      ASSERT_NEAR(out.at<float>(v, u), pattern(u, v), 1.5) << u << "," << v;
      ++compared;
    }
  EXPECT_GT(compared, 8000);
}

TEST(UndistortCamera, RemapFillsOnlyAnEmptyDestination) {
  UndistortCamera cam(cv::Size(4, 2), "c");
  cam.fill = cv::Scalar(200);
  cam.map1 = (cv::Mat_<float>(2, 4) << 0, 1, -50, -50, 2, 3, 99, 3);
  cam.map2 = (cv::Mat_<float>(2, 4) << 0, 0, 0, 0, 1, 1, 1, 1);
  cv::Mat src(2, 4, CV_8UC1, cv::Scalar(50));

  cv::Mat fresh;
  cam.remap(src, fresh);
  EXPECT_EQ(cv::countNonZero(fresh != (cv::Mat_<uchar>(2, 4) << 50, 50, 200, 200, 50, 50, 200, 50)),
            0);

  cv::Mat prefilled(2, 4, CV_8UC1, cv::Scalar(7));
  uchar* buffer = prefilled.data;
  cam.remap(src, prefilled);
  EXPECT_EQ(prefilled.data, buffer);
  EXPECT_EQ(cv::countNonZero(prefilled != (cv::Mat_<uchar>(2, 4) << 50, 50, 7, 7, 50, 50, 7, 50)),
            0);
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
  auto expected = [&](int code) {
    cv::Mat out(16, 16, CV_32FC1, cv::Scalar(0));
    cv::remap(src, out, cam.map1, cam.map2, code, cv::BORDER_TRANSPARENT);
    return out;
  };
  const std::vector<std::pair<int, int>> cases = {{0, cv::INTER_NEAREST}, {1, cv::INTER_LINEAR},
                                                  {2, cv::INTER_CUBIC},   {3, cv::INTER_LANCZOS4},
                                                  {7, cv::INTER_LINEAR},  {-1, cv::INTER_LINEAR}};
  for (auto [selector, code] : cases) {
    cam.interpolation = selector;
    cv::Mat out(16, 16, CV_32FC1, cv::Scalar(0));
    cam.remap(src, out);
    EXPECT_EQ(cv::norm(out, expected(code), cv::NORM_INF), 0.0) << "selector " << selector;
  }
  ASSERT_GT(cv::norm(expected(cv::INTER_LANCZOS4), expected(cv::INTER_LINEAR), cv::NORM_INF), 1.0);
}

TEST(UndistortCamera, CopiesOwnTheirMaps) {
  Rig rig;
  rig.ideal.roi = cv::Rect(1, 2, 3, 4);
  rig.ideal.fill = cv::Scalar(9);
  UndistortCamera copied(rig.ideal);
  UndistortCamera assigned(cv::Size(1, 1), "x");
  assigned = rig.ideal;
  for (UndistortCamera* c : {&copied, &assigned}) {
    EXPECT_NE(c->map1.data, rig.ideal.map1.data);
    EXPECT_NE(c->map2.data, rig.ideal.map2.data);
    EXPECT_EQ(cv::norm(c->map1, rig.ideal.map1, cv::NORM_INF), 0.0);
    EXPECT_EQ(c->roi, rig.ideal.roi);
    EXPECT_EQ(c->fill, rig.ideal.fill);
    EXPECT_EQ(c->use_float_map, 1);
    EXPECT_EQ(c->interpolation, 1);
  }
}

// --- persistence ----------------------------------------------------------

class UndistortPersistence : public ::testing::Test {
 protected:
  sl3d::testing::ScratchDir dir_{"undistort"};
};

TEST_F(UndistortPersistence, RoundTripWithMapFile) {
  Rig rig;
  rig.ideal.roi = cv::Rect(3, 4, 150, 110);
  const std::string map_path = dir_.file("rect0.map");
  cv::FileStorage out(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  ASSERT_TRUE(rig.ideal.save(&out, map_path));
  const std::string text = out.releaseAndGetString();
  EXPECT_NE(text.find("cam0_roi"), std::string::npos);
  // Two float records, each 16 header bytes + 160*120*4 data bytes.
  EXPECT_EQ(std::filesystem::file_size(map_path), 2u * (16u + 160u * 120u * 4u));

  cv::FileStorage in(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
  UndistortCamera back(cv::Size(), "cam0");
  ASSERT_TRUE(back.load(&in, map_path));
  EXPECT_EQ(back.size, kSize);
  EXPECT_EQ(back.roi, cv::Rect(3, 4, 150, 110));
  EXPECT_LT(cv::norm(back.P, rig.ideal.P, cv::NORM_INF), 1e-9);
  EXPECT_EQ(cv::norm(back.map1, rig.ideal.map1, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(back.map2, rig.ideal.map2, cv::NORM_INF), 0.0);
}

TEST_F(UndistortPersistence, MissingEmptyOrCorruptMapFiles) {
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
  EXPECT_TRUE(load(cam, dir_.file("absent.map")));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "!!Warning!! Rectify map not found. You must do rectify and make map.\n");

  cv::FileStorage scratch(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  UndistortCamera no_maps(kSize, "cam0");
  EXPECT_FALSE(no_maps.save(&scratch, dir_.file("empty.map")));
  EXPECT_FALSE(rig.ideal.save(&scratch, dir_.path().string() + "/no/such/dir.map"));

  const std::string map_path = dir_.file("cut.map");
  ASSERT_TRUE(rig.ideal.save(&scratch, map_path));
  std::filesystem::resize_file(map_path, std::filesystem::file_size(map_path) - 100);
  EXPECT_FALSE(load(cam, map_path));
}

// Unlike DistortCamera, the own file loads back: neither direction touches
// "CameraName". A roi that is not four integers loads as zeros.
TEST_F(UndistortPersistence, OwnFileLoadsBackAndRoiMustHaveFourEntries) {
  sl3d::testing::WorkingDir cwd(dir_.path());
  Rig rig;
  rig.ideal.roi = cv::Rect(1, 2, 3, 4);
  ASSERT_TRUE(rig.ideal.save(nullptr, ""));
  {
    cv::FileStorage fs("cam0_param.yaml", cv::FileStorage::READ);
    EXPECT_TRUE(fs["CameraName"].empty());
  }
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

}  // namespace
