// The generator frame shared by both measuring methods: the factory, buffer
// and calibration lifetime, the fallback messages and the Q reprojection of
// a disparity list into points and range grid.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <array>
#include <filesystem>

#include <unistd.h>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/threads.h>
#include <sl3d/sim/sim_calibration.h>

namespace {

const char kNoQ[] = "Q Matrix Not found. PointCloud not can't be generated.\n";
const char kNoStereo[] = "Stereo Camera not found. then use Q matrix.\n";

struct Destroy {
  void operator()(iPointCloudGenerator* g) const { g->destroy(); }
};

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
ListPtr make_list_generator(int w, int h) {
  ListPtr gen(new ListGenerator);
  EXPECT_TRUE(gen->init(w, h));
  gen->texture.resize(h, w);
  for (int i = 0; i < w * h; ++i) gen->texture.data()[i] = static_cast<std::uint8_t>(7 * i + 3);
  return gen;
}

const double kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

// Runs genPC with standard output captured; returns what was printed.
std::string printed_by_genpc(iPointCloudGenerator& gen, int mode, int* count) {
  testing::internal::CaptureStdout();
  *count = gen.genPC(mode);
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
    EXPECT_EQ(printed_by_genpc(*gen, c.mode, &n), c.printed) << c.mode;
    EXPECT_EQ(n, c.points);
  }
}

TEST(Calibration, DirectoryLoadingFailsAndKeepsEarlierQ) {
  auto gen = make_list_generator(4, 3);
  gen->verbose = 1;
  const double q[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
  gen->set_camera_params(q);

  testing::internal::CaptureStdout();
  EXPECT_FALSE(gen->set_camera_params(testing::TempDir().c_str()));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Trying create stereo camera from Hmat...\n>> Failure\n"
            "Trying create stereo camera from yaml...\n>> Failure\n");
  ASSERT_NE(gen->get_q_matrix(), nullptr);
  EXPECT_EQ(std::vector<double>(gen->get_q_matrix(), gen->get_q_matrix() + 16),
            std::vector<double>(q, q + 16));

  // The kept Q still reprojects, also in a stereo mode.
  gen->add(3, 2, 4);
  int n = -1;
  EXPECT_EQ(printed_by_genpc(*gen, 1, &n), kNoStereo);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(gen->get_pointcloud_ptr()[0].x, 6.0f);
  EXPECT_EQ(gen->get_pointcloud_ptr()[0].z, 8.0f);

  gen->verbose = 0;
  testing::internal::CaptureStdout();
  EXPECT_FALSE(gen->set_camera_params("/nonexistent/calibration"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  EXPECT_THROW(gen->set_camera_params(static_cast<const char*>(nullptr)), std::logic_error);
}

TEST(QReprojection, IdentityAndProjectiveQ) {
  const int w = 12, h = 24;
  auto gen = make_list_generator(w, h);
  gen->verbose = 0;

  gen->set_camera_params(kIdentity);
  gen->add(10, 20, 5);
  ASSERT_EQ(gen->genPC(0), 1);
  const PointCloudElement& p = gen->get_pointcloud_ptr()[0];
  EXPECT_EQ(p.x, 10.0f);
  EXPECT_EQ(p.y, 20.0f);
  EXPECT_EQ(p.z, 5.0f);
  const std::uint8_t colour = gen->texture(20, 10);
  EXPECT_EQ(p.red, colour);
  EXPECT_EQ(p.green, colour);
  EXPECT_EQ(p.blue, colour);
  EXPECT_EQ(gen->get_rangegrid()[20 * w + 10], 0);

  // A rectified pair's Q (principal point (cx, cy), focal f, baseline b):
  // X = (x - cx) b / d, Y = (y - cy) b / d, Z = f b / d, and W = d / b is 0
  // for d = 0, so such records yield no point.
  const double cx = 5.5, cy = 11.5, f = 100.0, b = 50.0;
  const double q[16] = {1, 0, 0, -cx, 0, 1, 0, -cy, 0, 0, 0, f, 0, 0, 1 / b, 0};
  gen->set_camera_params(q);
  gen->clear();
  struct Rec { double x, y, d; };
  // Listed out of raster order on purpose; fractional coordinates truncate.
  const std::vector<Rec> recs = {{7, 15, 20}, {0, 0, 0},  {2.75, 21.5, 12.5},
                                 {1, 0, -4},  {3, 3, 0.0}, {11, 23, 1e-3}};
  for (const Rec& r : recs) gen->add(r.x, r.y, r.d);
  ASSERT_EQ(gen->genPC(0), 4);

  const int* grid = gen->get_rangegrid();
  int k = 0;
  for (const Rec& r : recs) {
    const int pixel = static_cast<int>(r.y) * w + static_cast<int>(r.x);
    if (r.d == 0.0) {
      EXPECT_EQ(grid[pixel], -1) << "W = 0 must leave the cell empty";
      continue;
    }
    const PointCloudElement& e = gen->get_pointcloud_ptr()[k];
    EXPECT_FLOAT_EQ(e.x, static_cast<float>((r.x - cx) * b / r.d)) << k;
    EXPECT_FLOAT_EQ(e.y, static_cast<float>((r.y - cy) * b / r.d)) << k;
    EXPECT_FLOAT_EQ(e.z, static_cast<float>(f * b / r.d)) << k;
    EXPECT_EQ(e.red, gen->texture(static_cast<int>(r.y), static_cast<int>(r.x))) << k;
    EXPECT_EQ(grid[pixel], k);
    ++k;
  }
  // Every cell not named above is empty, including the earlier (10, 20).
  int filled = 0;
  for (int i = 0; i < w * h; ++i) filled += grid[i] >= 0;
  EXPECT_EQ(filled, 4);

  // An empty list clears the previous cloud and the whole grid.
  gen->clear();
  EXPECT_EQ(gen->genPC(0), 0);
  EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
  for (int i = 0; i < w * h; ++i) EXPECT_EQ(grid[i], -1) << i;
}

TEST(QReprojection, EveryPixelFitsInListOrderOnAnyNumberOfThreads) {
  // A full list (w*h records): every pixel but 0 and 1 in reverse raster
  // order, then pixel 0 twice. The grid must map each pixel to its last
  // point, whether the list is done on one thread or (the larger list)
  // offered to several, which must then notice the order and give the
  // sequential result.
  struct Case {
    int w, h, threads;
  };
  for (const Case c : {Case{50, 43, 1}, Case{512, 300, 2}}) {
    const int w = c.w, h = c.h, n = w * h;
    sl3d::set_num_threads(c.threads);
    auto gen = make_list_generator(w, h);
    gen->verbose = 0;
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
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("sl3d_pcg_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir_);
    sl3d::SimRig rig = sl3d::SimRig::scaled(64, 48);
    cameras_ = sl3d::default_raw_cameras(rig);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::filesystem::path dir_;
  std::array<sl3d::SimCamera, 2> cameras_;
};

TEST_F(CalibrationDirectory, CameraFilesAloneLoadThroughTheSecondRoute) {
  ASSERT_TRUE(sl3d::write_camera_files(cameras_, dir_.string()));
  ListPtr gen = make_list_generator(64, 48);
  gen->verbose = 1;
  testing::internal::CaptureStdout();
  EXPECT_TRUE(gen->set_camera_params(dir_.string().c_str()));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Trying create stereo camera from Hmat...\n>> Failure\n"
            "Trying create stereo camera from yaml...\n>> Success.\n");
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
  ASSERT_TRUE(sl3d::write_calibration_directory(cameras_, dir_.string()));
  ListPtr gen = make_list_generator(64, 48);
  gen->verbose = 0;
  // Without a calibration directory the image stays raw.
  std::vector<unsigned char> raw(70 * 50);
  for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<unsigned char>(i * 31 + 7);
  std::vector<unsigned char> image = raw;
  gen->rectify(image.data(), 64, 48, 70, 0);
  EXPECT_EQ(image, raw);
  ASSERT_TRUE(gen->set_camera_params(dir_.string().c_str()));
  // A 64x50 raw image in rows of 70 bytes: the 64x48 corner is rectified,
  // the row padding and the two extra rows keep the raw bytes.
  gen->rectify(image.data(), 64, 50, 70, 1);
  bool corner_changed = false;
  for (int y = 0; y < 50; ++y) {
    for (int x = 0; x < 70; ++x) {
      const std::size_t i = static_cast<std::size_t>(y) * 70 + x;
      if (x >= 64 || y >= 48) {
        ASSERT_EQ(image[i], raw[i]) << x << "," << y;
      } else {
        corner_changed |= image[i] != raw[i];
      }
    }
  }
  EXPECT_TRUE(corner_changed);
}

TEST_F(CalibrationDirectory, StereoModesDoNotResetTheRangeGrid) {
  ASSERT_TRUE(sl3d::write_calibration_directory(cameras_, dir_.string()));
  ListPtr gen = make_list_generator(64, 48);
  gen->verbose = 0;
  ASSERT_TRUE(gen->set_camera_params(dir_.string().c_str()));
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
