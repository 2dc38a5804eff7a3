// The generator frame shared by both measuring methods: the factory, buffer
// and calibration lifetime, init's refusal of sizes whose buffers cannot be
// sized, the fallback messages and the Q reprojection of a disparity list
// into points and range grid.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/threads.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>
#include <sl3d/sim/sim_calibration.h>

namespace {

const char kNoQ[] = "Q Matrix Not found. PointCloud not can't be generated.\n";
const char kNoStereo[] = "Stereo Camera not found. then use Q matrix.\n";
const char kTrying[] = "Trying create stereo camera from Hmat...\n>> Failure\n"
                       "Trying create stereo camera from yaml...\n";
const double kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

struct Destroy {
  void operator()(iPointCloudGenerator* g) const { g->destroy(); }
};
using GeneratorPtr = std::unique_ptr<PointCloudGenerator, Destroy>;

GeneratorPtr make(int kind) {
  return GeneratorPtr(dynamic_cast<PointCloudGenerator*>(createPointCloudGenerator(kind)));
}

TEST(Factory, KindOneIsBlockMatchingEverythingElsePhaseShift) {
  for (int kind : {1, 0, 2, -1}) {
    SCOPED_TRACE(kind);
    GeneratorPtr gen = make(kind);
    ASSERT_NE(gen, nullptr);
    EXPECT_EQ(dynamic_cast<SGBMaching*>(gen.get()) != nullptr, kind == 1);
    EXPECT_EQ(dynamic_cast<PhaseShift*>(gen.get()) != nullptr, kind != 1);
    EXPECT_EQ(gen->verbose, 1);
    // Nothing is allocated before init.
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_EQ(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_EQ(gen->get_rangegrid(), nullptr);
    EXPECT_EQ(gen->get_disparity_ptr(), nullptr);
    EXPECT_EQ(gen->get_q_matrix(), nullptr);
    EXPECT_EQ(gen->width(), 0);
    // After init the grid is empty (-1) even before any genPC.
    ASSERT_TRUE(gen->init(6, 4));
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_NE(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_NE(gen->get_disparity_ptr(), nullptr);
    ASSERT_NE(gen->get_rangegrid(), nullptr);
    EXPECT_EQ(std::vector<int>(gen->get_rangegrid(), gen->get_rangegrid() + 24),
              std::vector<int>(24, -1));
    EXPECT_EQ(gen->width(), 6);
    EXPECT_EQ(gen->height(), 4);
  }
}

TEST(Init, SizesWithoutARepresentableByteCountRaiseBeforeAnyEffect) {
  for (int kind : {0, 1}) {
    GeneratorPtr gen = make(kind);
    ASSERT_TRUE(gen->init(8, 8));
    ASSERT_TRUE(gen->set_camera_params(kIdentity));
    const int* grid = gen->get_rangegrid();
    for (auto [w, h] : {std::pair{-1, 8}, {8, -8}, {INT_MIN, INT_MIN}, {65537, 65537},
                        {65536, 65536}, {INT_MAX, 2}}) {
      EXPECT_THROW(gen->init(w, h), std::bad_array_new_length) << kind << ": " << w << "x" << h;
      // The generator is as it was: size, buffers and calibration.
      EXPECT_EQ(gen->width(), 8);
      EXPECT_EQ(gen->get_rangegrid(), grid);
      EXPECT_NE(gen->get_q_matrix(), nullptr);
    }
    EXPECT_TRUE(gen->init(0, 5)) << kind;  // empty images are a size like any other
  }
}

// A generator whose disparity list is written by the test, so the common
// reprojection can be checked without any matcher in front of it.
class ListGenerator : public PointCloudGenerator {
 public:
  void destroy() override { delete this; }
  void setparams(void*) override {}
  void setpict(unsigned char*, unsigned long, int, int) override {}
  int exec() override { return get_disparity_cnt(); }
  int genPC(int mode) override { return generate_pointcloud(mode, texture.data()); }

  void add(double x, double y, double d) { append_disparity(x, y, d); }
  void clear() { clear_disparities(); }

  ByteImage texture;
};

using ListPtr = std::unique_ptr<ListGenerator, Destroy>;

// w x h generator with a texture whose byte at pixel i is (7 * i + 3) mod 256.
ListPtr make_list_generator(int w, int h, int verbose = 0) {
  ListPtr gen(new ListGenerator);
  EXPECT_TRUE(gen->init(w, h));
  gen->verbose = verbose;
  gen->texture.resize(h, w);
  for (int i = 0; i < w * h; ++i) gen->texture.data()[i] = static_cast<std::uint8_t>(7 * i + 3);
  return gen;
}

// Runs `call` with standard output captured; returns what was printed.
template <typename Call>
std::string printed_by(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

TEST(Calibration, InitDropsQAndGenPcReportsWhatIsMissing) {
  auto gen = make_list_generator(4, 3);
  gen->set_camera_params(kIdentity);
  gen->add(1, 1, 2);
  ASSERT_EQ(gen->genPC(0), 1);
  // A point cloud made before re-init must not survive it either.
  ASSERT_TRUE(gen->init(4, 3));
  EXPECT_EQ(gen->get_q_matrix(), nullptr);
  EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
  EXPECT_EQ(gen->get_disparity_cnt(), 0);

  // With Q present only the stereo fallback is announced, for modes != 0;
  // quiet generators print nothing.
  struct Case {
    int verbose;
    bool q;
    int mode;
    std::string printed;
    int points;
  };
  const std::string no_q = kNoQ, no_stereo = kNoStereo;
  for (const Case& c : {Case{1, false, 0, no_q, 0}, Case{1, false, 3, no_stereo + no_q, 0},
                        Case{1, true, 0, "", 1}, Case{1, true, 2, no_stereo, 1},
                        Case{0, false, 1, "", 0}, Case{0, true, 2, "", 1}}) {
    ASSERT_TRUE(gen->init(4, 3));
    gen->verbose = c.verbose;
    if (c.q) gen->set_camera_params(kIdentity);
    gen->add(1, 1, 2);
    int n = -1;
    EXPECT_EQ(printed_by([&] { n = gen->genPC(c.mode); }), c.printed) << c.mode;
    EXPECT_EQ(n, c.points);
  }
}

TEST(Calibration, DirectoryLoadingFailsAndKeepsEarlierQ) {
  auto gen = make_list_generator(4, 3, 1);
  const double q[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
  gen->set_camera_params(q);
  EXPECT_EQ(printed_by([&] { EXPECT_FALSE(gen->set_camera_params(testing::TempDir().c_str())); }),
            std::string(kTrying) + ">> Failure\n");
  ASSERT_NE(gen->get_q_matrix(), nullptr);
  EXPECT_EQ(std::vector<double>(gen->get_q_matrix(), gen->get_q_matrix() + 16),
            std::vector<double>(q, q + 16));
  // The kept Q still reprojects, also in a stereo mode.
  gen->add(3, 2, 4);
  int n = -1;
  EXPECT_EQ(printed_by([&] { n = gen->genPC(1); }), kNoStereo);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(gen->get_pointcloud_ptr()[0].x, 6.0f);
  EXPECT_EQ(gen->get_pointcloud_ptr()[0].z, 8.0f);

  gen->verbose = 0;
  EXPECT_EQ(printed_by([&] { EXPECT_FALSE(gen->set_camera_params("/nonexistent/calibration")); }),
            "");
  EXPECT_THROW(gen->set_camera_params(static_cast<const char*>(nullptr)), std::logic_error);
}

TEST(QReprojection, IdentityAndProjectiveQ) {
  const int w = 12, h = 24;
  auto gen = make_list_generator(w, h);
  gen->set_camera_params(kIdentity);
  gen->add(10, 20, 5);
  ASSERT_EQ(gen->genPC(0), 1);
  const PointCloudElement& p = gen->get_pointcloud_ptr()[0];
  EXPECT_EQ(cv::Vec3f(p.x, p.y, p.z), cv::Vec3f(10, 20, 5));
  const std::uint8_t colour = gen->texture(20, 10);
  EXPECT_EQ(cv::Vec3b(p.red, p.green, p.blue), cv::Vec3b(colour, colour, colour));
  EXPECT_EQ(gen->get_rangegrid()[20 * w + 10], 0);

  // A rectified pair's Q (principal point (cx, cy), focal f, baseline b):
  // X = (x - cx) b / d, Y = (y - cy) b / d, Z = f b / d, and W = d / b is 0
  // for d = 0, so such records yield no point.
  const double cx = 5.5, cy = 11.5, f = 100.0, b = 50.0;
  const double q[16] = {1, 0, 0, -cx, 0, 1, 0, -cy, 0, 0, 0, f, 0, 0, 1 / b, 0};
  gen->set_camera_params(q);
  gen->clear();
  // Listed out of raster order on purpose; fractional coordinates truncate.
  const std::vector<cv::Vec3d> recs = {{7, 15, 20}, {0, 0, 0},  {2.75, 21.5, 12.5},
                                       {1, 0, -4},  {3, 3, 0.0}, {11, 23, 1e-3}};
  for (const cv::Vec3d& r : recs) gen->add(r[0], r[1], r[2]);
  ASSERT_EQ(gen->genPC(0), 4);
  const int* grid = gen->get_rangegrid();
  int k = 0;
  for (const cv::Vec3d& r : recs) {
    const int pixel = int(r[1]) * w + int(r[0]);
    if (r[2] == 0.0) {
      EXPECT_EQ(grid[pixel], -1) << "W = 0 must leave the cell empty";
      continue;
    }
    const PointCloudElement& e = gen->get_pointcloud_ptr()[k];
    EXPECT_FLOAT_EQ(e.x, float((r[0] - cx) * b / r[2])) << k;
    EXPECT_FLOAT_EQ(e.y, float((r[1] - cy) * b / r[2])) << k;
    EXPECT_FLOAT_EQ(e.z, float(f * b / r[2])) << k;
    EXPECT_EQ(e.red, gen->texture(int(r[1]), int(r[0]))) << k;
    EXPECT_EQ(grid[pixel], k++);
  }
  // Every cell not named above is empty, including the earlier (10, 20).
  EXPECT_EQ(std::count_if(grid, grid + w * h, [](int i) { return i >= 0; }), 4);
  // An empty list clears the previous cloud and the whole grid.
  gen->clear();
  EXPECT_EQ(gen->genPC(0), 0);
  EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
  EXPECT_EQ(std::count(grid, grid + w * h, -1), w * h);
}

TEST(QReprojection, EveryPixelFitsInListOrderOnAnyNumberOfThreads) {
  // A full list (w*h records): every pixel but 0 and 1 in reverse raster
  // order, then pixel 0 twice. The grid must map each pixel to its last
  // point, whether the list is done on one thread or (the larger list)
  // offered to several, which must then notice the order and give the
  // sequential result.
  for (auto [w, h, threads] : {std::array{50, 43, 1}, std::array{512, 300, 2}}) {
    const int n = w * h;
    sl3d::set_num_threads(threads);
    auto gen = make_list_generator(w, h);
    const double q[16] = {0.5, 0, 0, 1, 0, 0.5, 0, -1, 0, 0, 0, 300, 0, 0, 0.1, 0};
    gen->set_camera_params(q);
    for (int i = n - 1; i >= 2; --i) gen->add(i % w, i / w, 1.0 + i);
    gen->add(0, 0, 2.0);
    gen->add(0, 0, 1.0);
    for (int mode : {0, 3}) {
      ASSERT_EQ(gen->genPC(mode), n) << mode;
      const PointCloudElement* pts = gen->get_pointcloud_ptr();
      const int* grid = gen->get_rangegrid();
      ASSERT_EQ(grid[0], n - 1);
      ASSERT_EQ(grid[1], -1);
      for (int i = 2; i < n; ++i) {
        ASSERT_EQ(grid[i], n - 1 - i) << mode;
        const PointCloudElement& e = pts[grid[i]];
        ASSERT_FLOAT_EQ(e.x, static_cast<float>((0.5 * (i % w) + 1) / (0.1 * (1.0 + i)))) << i;
        ASSERT_FLOAT_EQ(e.z, static_cast<float>(300.0 / (0.1 * (1.0 + i)))) << i;
        ASSERT_EQ(e.blue, static_cast<std::uint8_t>(7 * i + 3)) << i;
      }
    }
    sl3d::set_num_threads(1);
  }
}

// ---------------------------------------------------------------------------
// Calibration directories (the virtual sensor's true cameras)

class CalibrationDirectory : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(dir_); }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  const std::string dir_ = testing::TempDir() + "sl3d_pcg_" + std::to_string(::getpid());
  const std::array<sl3d::SimCamera, 2> cameras_ =
      sl3d::default_raw_cameras(sl3d::SimRig::scaled(64, 48));
};

TEST_F(CalibrationDirectory, CameraFilesAloneLoadThroughTheSecondRoute) {
  ASSERT_TRUE(sl3d::write_camera_files(cameras_, dir_));
  ListPtr gen = make_list_generator(64, 48, 1);
  EXPECT_EQ(printed_by([&] { EXPECT_TRUE(gen->set_camera_params(dir_.c_str())); }),
            std::string(kTrying) + ">> Success.\n");
  ASSERT_NE(gen->get_q_matrix(), nullptr);
  ASSERT_NE(gen->get_stereo_camera(), nullptr);
  // The generator's Q is the stereo model's, row-major.
  const cv::Mat& q = gen->get_stereo_camera()->Q;
  for (int k = 0; k < 16; ++k) EXPECT_EQ(gen->get_q_matrix()[k], q.at<double>(k / 4, k % 4));
  // init drops the model again.
  ASSERT_TRUE(gen->init(64, 48));
  EXPECT_EQ(gen->get_stereo_camera(), nullptr);
}

TEST_F(CalibrationDirectory, RectifyRewritesOnlyTheGeneratorsCorner) {
  ASSERT_TRUE(sl3d::write_calibration_directory(cameras_, dir_));
  ListPtr gen = make_list_generator(64, 48);
  // Without a calibration directory the image stays raw.
  std::vector<unsigned char> raw(70 * 50);
  for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<unsigned char>(i * 31 + 7);
  std::vector<unsigned char> image = raw;
  gen->rectify(image.data(), 64, 48, 70, 0);
  EXPECT_EQ(image, raw);
  ASSERT_TRUE(gen->set_camera_params(dir_.c_str()));
  // A 64x50 raw image in rows of 70 bytes: the 64x48 corner is rectified,
  // the row padding and the two extra rows keep the raw bytes.
  gen->rectify(image.data(), 64, 50, 70, 1);
  bool corner_changed = false;
  for (int y = 0; y < 50; ++y) {
    for (int x = 0; x < 70; ++x) {
      const std::size_t i = static_cast<std::size_t>(y) * 70 + x;
      if (x >= 64 || y >= 48)
        ASSERT_EQ(image[i], raw[i]) << x << "," << y;
      else
        corner_changed |= image[i] != raw[i];
    }
  }
  EXPECT_TRUE(corner_changed);
}

TEST_F(CalibrationDirectory, StereoModesDoNotResetTheRangeGrid) {
  ASSERT_TRUE(sl3d::write_calibration_directory(cameras_, dir_));
  ListPtr gen = make_list_generator(64, 48);
  ASSERT_TRUE(gen->set_camera_params(dir_.c_str()));
  gen->add(10, 20, 5);
  gen->add(30, 21, 6);
  ASSERT_EQ(gen->genPC(0), 2);
  const int* grid = gen->get_rangegrid();
  gen->clear();
  gen->add(30, 21, 6);
  for (int mode : {2, 1}) {
    ASSERT_EQ(gen->genPC(mode), 1) << mode;
    EXPECT_EQ(grid[20 * 64 + 10], 0) << "mode " << mode << " cleared a cell it did not write";
    EXPECT_EQ(grid[21 * 64 + 30], 0);
  }
  // The Q route starts from an empty grid.
  ASSERT_EQ(gen->genPC(0), 1);
  EXPECT_EQ(grid[20 * 64 + 10], -1);
}

}  // namespace
