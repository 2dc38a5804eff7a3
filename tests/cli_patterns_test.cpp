// `sl3d patterns` as a user meets it. The frames it writes, thrown by a
// projector onto a tilted plane and seen by two rectified cameras through a
// renderer of this test's own (a plane-induced homography warp of the PNG
// files, not the virtual sensor), decode and match to the plane's true
// disparity, and after the tool's filter no point is off the plane; --check reports the unlit and the overexposed; projector sizes
// the frames cannot serve are refused.

#include <cmath>
#include <cstdio>
#include <regex>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/psft/psft.h>

#include "cli_util.h"

namespace sl3d {
namespace {

using namespace sl3d_test;

constexpr int kProjectorWidth = 1920;
constexpr int kProjectorHeight = 1080;
constexpr int kFirstUsableColumn = 375;  // period 15: periods 25..96
constexpr int kUsableEndColumn = 1455;

// Two rectified cameras 100 mm apart looking along +z, the projector
// halfway between them with the same orientation, and a plane about a
// metre away, turned about both axes. The projector's principal point is
// high, so the top rows of the view get no light.
struct Scene {
  cv::Size size{640, 480};
  double focal = 700.0;
  double baseline = 100.0;
  cv::Matx33d projector_k{1100.0, 0.0, 970.0, 0.0, 1100.0, 340.0, 0.0, 0.0, 1.0};
  cv::Vec3d normal{0.25, -0.1, -1.0};
  double plane_d = -1000.0;  // normal . X = plane_d, through (0, 0, 1000)

  cv::Vec3d centre(int camera) const { return {camera * baseline, 0.0, 0.0}; }
  cv::Vec3d projector_centre() const { return {baseline / 2.0, 0.0, 0.0}; }
  cv::Matx33d k(double scale) const {
    // Pixel centres at integers at both scales: u' = scale * u + (scale - 1) / 2.
    const double c = (scale - 1.0) / 2.0;
    return {scale * focal, 0.0, scale * (size.width - 1) / 2.0 + c,
            0.0, scale * focal, scale * (size.height - 1) / 2.0 + c, 0.0, 0.0, 1.0};
  }
  // Camera-0 depth of the plane along the ray of pixel (u, v).
  double depth(double u, double v) const {
    const cv::Vec3d ray((u - (size.width - 1) / 2.0) / focal, (v - (size.height - 1) / 2.0) / focal, 1.0);
    return plane_d / normal.dot(ray);
  }
  // Projector pixel (pixel centres at integers) lighting camera-0 pixel (u, v).
  cv::Point2d projector_pixel(double u, double v) const {
    const double z = depth(u, v);
    const cv::Vec3d p(z * (u - (size.width - 1) / 2.0) / focal - baseline / 2.0,
                      z * (v - (size.height - 1) / 2.0) / focal, z);
    const cv::Vec3d q = projector_k * p;
    return {q[0] / q[2], q[1] / q[2]};
  }
  // Plane-induced homography from camera pixels (at `scale`) to projector
  // pixels: X_p = (I + t n^T / d) X_c on the plane, t = C_c - C_p.
  cv::Matx33d projector_from_camera(int camera, double scale) const {
    const cv::Vec3d t = centre(camera) - projector_centre();
    const double d = plane_d - normal.dot(centre(camera));
    return projector_k * (cv::Matx33d::eye() + t * normal.t() * (1.0 / d)) * k(scale).inv();
  }
};

// What a camera records: 15 grey levels of ambient light plus 0.85 of the
// projector's level where it lights the plane, averaged over 2 x 2 samples
// per pixel.
cv::Mat capture(const Scene& scene, const cv::Mat& frame, int camera, double gain = 1.0) {
  cv::Mat fine, coarse, out;
  cv::warpPerspective(frame, fine, cv::Mat(scene.projector_from_camera(camera, 2.0)),
                      scene.size * 2, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  fine.convertTo(fine, CV_32F, 0.85 * gain, 15.0 * gain);
  cv::resize(fine, coarse, scene.size, 0, 0, cv::INTER_AREA);
  coarse.convertTo(out, CV_8U);  // rounds and saturates
  return out;
}

// Records of `gen` whose depth lies more than `mm` from the plane's.
int depth_errors_above(const Scene& scene, const PointCloudGenerator& gen, double mm) {
  int count = 0;
  const double* record = gen.get_disparity_ptr();
  for (int k = 0; k < gen.get_disparity_cnt(); ++k, record += 4) {
    const double depth = scene.focal * scene.baseline / record[2];
    count += std::fabs(depth - scene.depth(record[0], record[1])) > mm;
  }
  return count;
}

class PatternsCommand : public ToolTest {
 protected:
  static void SetUpTestSuite() {
    ToolTest::SetUpTestSuite();
    const RunResult r = run({"patterns", "--width", std::to_string(kProjectorWidth),
                                 "--height", std::to_string(kProjectorHeight), "--out",
                                 (root_ / "p").string()});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    // The layout file states the period and the columns the generator uses.
    cv::FileStorage yaml((root_ / "p" / "patterns.yaml").string(), cv::FileStorage::READ);
    const int expected[] = {kProjectorWidth, kProjectorHeight, 15, 128, kFirstUsableColumn,
                            kUsableEndColumn - 1};
    const char* keys[] = {"width", "height", "period", "periods", "usable_first_column",
                          "usable_last_column"};
    for (int k = 0; k < 6; ++k) EXPECT_EQ(int(yaml[keys[k]]), expected[k]) << keys[k];
    for (int camera = 0; camera < 2; ++camera) {
      captures_[camera].clear();
      for (int index = 0; index < 13; ++index) {
        char name[32];
        std::snprintf(name, sizeof name, "pattern_%02d.png", index);
        const cv::Mat frame = cv::imread((root_ / "p" / name).string(), cv::IMREAD_UNCHANGED);
        ASSERT_EQ(frame.type(), CV_8UC1) << name;
        ASSERT_EQ(frame.size(), cv::Size(kProjectorWidth, kProjectorHeight)) << name;
        captures_[camera].push_back(capture(Scene(), frame, camera));
      }
    }
  }

  // Writes the captures, brightened by `gain`, as `sl3d scan` reads them.
  static fs::path write_captures(const std::string& name, double gain) {
    const fs::path out = root_ / name;
    fs::create_directories(out);
    for (int camera = 0; camera < 2; ++camera) {
      for (int index = 0; index < 13; ++index) {
        char file[32];
        std::snprintf(file, sizeof file, "cam%d_%02d.png", camera, index);
        cv::Mat image;
        captures_[camera][index].convertTo(image, CV_8U, gain);
        cv::imwrite((out / file).string(), image);
      }
    }
    return out;
  }

  static std::vector<cv::Mat> captures_[2];
};

std::vector<cv::Mat> PatternsCommand::captures_[2];

TEST_F(PatternsCommand, FramesOnAPlaneMatchToItsTrueDisparity) {
  const Scene scene;
  const int width = scene.size.width, height = scene.size.height;
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  ASSERT_TRUE(gen->init(width, height));
  for (int camera = 0; camera < 2; ++camera)
    for (int index = 0; index < 13; ++index)
      gen->setpict(captures_[camera][index].data, captures_[camera][index].step, camera, index);
  gen->exec();
  // Mixed pixels at the borders of the lit area and of the usable periods
  // lie centimetres off the plane; the tool's filter removes them.
  const int matched = gen->get_disparity_cnt();
  EXPECT_GT(depth_errors_above(scene, *gen, 5.0), 100);
  const DisparityFilterReport filtered = filter_disparities(*gen);
  EXPECT_LT(filtered.removed(), matched / 100);  // measured 458 of 257 308
  EXPECT_EQ(depth_errors_above(scene, *gen, 1.0), 0);  // largest 0.34 mm
  cv::Mat measured(scene.size, CV_64F, cv::Scalar(std::nan("")));
  const double* record = gen->get_disparity_ptr();
  for (int k = 0; k < gen->get_disparity_cnt(); ++k, record += 4) {
    measured.at<double>(int(record[1]), int(record[0])) = record[2];
  }
  gen->destroy();

  // The lit plane: camera-0 pixels lit by the usable periods (a column
  // clear of their ends) whose match lies inside camera 1's view.
  int lit = 0, within = 0;
  for (int v = 0; v < height; ++v) {
    for (int u = 0; u < width; ++u) {
      const cv::Point2d p = scene.projector_pixel(u, v);
      const double truth = scene.focal * scene.baseline / scene.depth(u, v);
      if (p.x < kFirstUsableColumn + 1 || p.x > kUsableEndColumn - 2 || p.y < 0.5 ||
          p.y > kProjectorHeight - 1.5 || u - truth < 2 || u - truth > width - 3) {
        continue;
      }
      ++lit;
      within += std::fabs(measured.at<double>(v, u) - truth) < 0.1;
    }
  }
  EXPECT_GT(lit, width * height / 2);
  EXPECT_GE(within, lit * 95 / 100);
}

// The share of `camera`'s pixels `sl3d patterns --check` calls rejected.
double rejected_share(const std::string& report, int camera) {
  const std::regex line("cam" + std::to_string(camera) +
                        ": [^]*?rejected for low contrast[^:]*: ([0-9.]+)%");
  std::smatch match;
  EXPECT_TRUE(std::regex_search(report, match, line)) << report;
  return match.empty() ? -1.0 : std::stod(match[1].str()) / 100.0;
}

TEST_F(PatternsCommand, CheckReportsUnlitAndOverexposedPixels) {
  const Scene scene;
  int unlit = 0;
  for (int v = 0; v < scene.size.height; ++v) {
    for (int u = 0; u < scene.size.width; ++u) {
      const cv::Point2d p = scene.projector_pixel(u, v);
      unlit += p.y < -0.5 || p.x < -0.5 || p.x > kProjectorWidth - 0.5;
    }
  }
  const double unlit_share = double(unlit) / scene.size.area();
  ASSERT_GT(unlit_share, 0.02);

  const RunResult fine = run({"patterns", "--check", write_captures("fine", 1.0).string()});
  ASSERT_EQ(fine.exit_code, 0) << fine.err;
  EXPECT_NEAR(rejected_share(fine.out, 0), unlit_share, 0.01) << fine.out;
  EXPECT_EQ(fine.out.find("advice"), std::string::npos) << fine.out;

  const RunResult bright = run({"patterns", "--check", write_captures("bright", 1.6).string()});
  ASSERT_EQ(bright.exit_code, 0) << bright.err;
  EXPECT_NE(bright.out.find("cam0's white frame is saturated"), std::string::npos) << bright.out;
  EXPECT_NE(bright.out.find("cam1's white frame is saturated"), std::string::npos) << bright.out;
}

TEST_F(PatternsCommand, RefusesWhatTheFramesCannotServe) {
  std::ofstream(root_ / "a_file") << "x";
  const fs::path out = root_ / "refused";
  const struct {
    std::vector<std::string> args;
    int code;
    std::string culprit;
    fs::path output;
  } cases[] = {
      {{"--width", "255", "--height", "100", "--out", out.string()}, 2, "needs 256", out},
      {{"--width", "1920", "--height", "1080", "--period", "16", "--out", out.string()}, 2,
       "--period 16", out},
      {{"--width", "1920", "--height", "1080", "--out", (root_ / "a_file" / "p").string()}, 1,
       "a_file", root_ / "a_file" / "p"},
      {{"--check", (root_ / "p").string()}, 1, "cam0_00.png", out},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"patterns"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    expect_refused(run(args), c.code, c.culprit, c.output);
  }
}

}  // namespace
}  // namespace sl3d
