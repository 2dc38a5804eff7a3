// The generator frame shared by both measuring methods: factory, buffer and
// calibration lifetime, init's refusal of unsizable buffers, the fallback
// messages, the Q and stereo-model triangulations into points and range
// grid; then the PLY writer and the disparity filter on hand-made lists.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/pointcloud/threads.h>
#include <sl3d/pointcloud/triangulation.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>
#include <sl3d/sim/sim_calibration.h>

namespace sl3d {
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

// Kind 1 is block matching, every other kind phase shift. Nothing is
// allocated before init; after it the grid is empty (-1) even before any
// genPC. Sizes whose byte counts cannot be represented raise before any
// effect: size, buffers and calibration stay.
TEST(Factory, KindsBuffersAndSizes) {
  for (int kind : {1, 0, 2, -1}) {
    SCOPED_TRACE(kind);
    GeneratorPtr gen = make(kind);
    ASSERT_NE(gen, nullptr);
    EXPECT_EQ(dynamic_cast<SGBMaching*>(gen.get()) != nullptr, kind == 1);
    EXPECT_EQ(dynamic_cast<PhaseShift*>(gen.get()) != nullptr, kind != 1);
    EXPECT_EQ(gen->verbose, 1);
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_EQ(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_EQ(gen->get_rangegrid(), nullptr);
    EXPECT_EQ(gen->get_disparity_ptr(), nullptr);
    EXPECT_EQ(gen->get_q_matrix(), nullptr);
    EXPECT_EQ(gen->width(), 0);
    ASSERT_TRUE(gen->init(6, 4));
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_NE(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_NE(gen->get_disparity_ptr(), nullptr);
    const int* grid = gen->get_rangegrid();
    ASSERT_NE(grid, nullptr);
    EXPECT_EQ(std::vector<int>(grid, grid + 24), std::vector<int>(24, -1));
    ASSERT_TRUE(gen->set_camera_params(kIdentity));
    for (auto [w, h] : {std::pair{-1, 8}, {8, -8}, {INT_MIN, INT_MIN}, {65537, 65537},
                        {65536, 65536}, {INT_MAX, 2}}) {
      EXPECT_THROW(gen->init(w, h), std::bad_array_new_length) << w << "x" << h;
      EXPECT_EQ(gen->width(), 6);
      EXPECT_EQ(gen->height(), 4);
      EXPECT_EQ(gen->get_rangegrid(), grid);
      EXPECT_NE(gen->get_q_matrix(), nullptr);
    }
    EXPECT_TRUE(gen->init(0, 5));  // empty images are a size like any other
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

// A full list (w*h records, the most a generator holds): every pixel but 0
// and 1 in reverse raster order, pixel 2 with d = 0 (W = 0: no point), then
// pixel 0 twice at fractional coordinates, which truncate to the pixel. The
// grid must map each pixel to its last point and leave pixels 1 and 2 empty,
// whether the list is done on one thread or (the larger list) offered to
// several, which must then notice the order and give the sequential result.
// An empty list then clears cloud and grid.
TEST(QReprojection, EveryPixelInListOrderOnAnyNumberOfThreads) {
  for (auto [w, h, threads] : {std::array{50, 43, 1}, std::array{512, 300, 2}}) {
    const int n = w * h;
    sl3d::set_num_threads(threads);
    auto gen = make_list_generator(w, h);
    // X = (0.5 x + 1) / W, Y = (0.5 y - 1) / W, Z = 300 / W with W = 0.1 d.
    const double q[16] = {0.5, 0, 0, 1, 0, 0.5, 0, -1, 0, 0, 0, 300, 0, 0, 0.1, 0};
    gen->set_camera_params(q);
    for (int i = n - 1; i >= 2; --i) gen->add(i % w, i / w, i == 2 ? 0.0 : 1.0 + i);
    gen->add(0.75, 0.5, 2.0);
    gen->add(0.25, 0.75, 1.0);
    const int* grid = gen->get_rangegrid();
    for (int mode : {0, 3}) {
      ASSERT_EQ(gen->genPC(mode), n - 1) << mode;
      const PointCloudElement* pts = gen->get_pointcloud_ptr();
      ASSERT_EQ(grid[0], n - 2);
      EXPECT_FLOAT_EQ(pts[n - 2].x, 11.25f);
      ASSERT_EQ(grid[1], -1);
      ASSERT_EQ(grid[2], -1);
      for (int i = 3; i < n; ++i) {
        ASSERT_EQ(grid[i], n - 1 - i) << mode;
        const PointCloudElement& e = pts[grid[i]];
        const double W = 0.1 * (1.0 + i);
        const auto grey = static_cast<std::uint8_t>(7 * i + 3);
        ASSERT_FLOAT_EQ(e.x, static_cast<float>((0.5 * (i % w) + 1) / W)) << i;
        ASSERT_FLOAT_EQ(e.y, static_cast<float>((0.5 * (i / w) - 1) / W)) << i;
        ASSERT_FLOAT_EQ(e.z, static_cast<float>(300.0 / W)) << i;
        ASSERT_EQ(cv::Vec3b(e.red, e.green, e.blue), cv::Vec3b(grey, grey, grey)) << i;
      }
    }
    gen->clear();
    EXPECT_EQ(gen->genPC(0), 0);
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_EQ(std::count(grid, grid + n, -1), n);
    sl3d::set_num_threads(1);
  }
}

// ---------------------------------------------------------------------------
// Calibration directories (the virtual sensor's true cameras)

class CalibrationDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(yaml_only_);
    ASSERT_TRUE(sl3d::write_calibration_directory(cameras_, dir_));
    ASSERT_TRUE(sl3d::write_camera_files(cameras_, yaml_only_));
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  const std::string dir_ = testing::TempDir() + "sl3d_pcg_" + std::to_string(::getpid());
  const std::string yaml_only_ = dir_ + "/yaml_only";
  const std::array<sl3d::SimCamera, 2> cameras_ =
      sl3d::default_raw_cameras(sl3d::SimRig::scaled(64, 48));
};

// The camera files alone load through the second route and give the model
// the stored rectification gives: the same Q, the same rectified images.
// rectify rewrites only the generator's corner of a larger raw image (rows
// of 70 bytes, 50 rows here): the row padding and the extra rows keep the
// raw bytes; without a calibration directory nothing changes.
TEST_F(CalibrationDirectory, CameraFilesAloneGiveTheStoredModelAndRectifyOnlyTheCorner) {
  ListPtr stored = make_list_generator(64, 48);
  ListPtr yaml = make_list_generator(64, 48, 1);
  std::vector<unsigned char> raw(70 * 50);
  for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<unsigned char>(i * 31 + 7);
  std::vector<unsigned char> a = raw, b = raw;
  stored->rectify(a.data(), 64, 50, 70, 0);
  EXPECT_EQ(a, raw);
  ASSERT_TRUE(stored->set_camera_params(dir_.c_str()));
  EXPECT_EQ(printed_by([&] { EXPECT_TRUE(yaml->set_camera_params(yaml_only_.c_str())); }),
            std::string(kTrying) + ">> Success.\n");
  ASSERT_NE(yaml->get_stereo_camera(), nullptr);
  for (int k = 0; k < 16; ++k)
    EXPECT_NEAR(yaml->get_q_matrix()[k], stored->get_q_matrix()[k], 1e-9) << k;
  for (int camera : {0, 1}) {
    a = b = raw;
    stored->rectify(a.data(), 64, 50, 70, camera);
    yaml->rectify(b.data(), 64, 50, 70, camera);
    EXPECT_EQ(a, b) << camera;
    bool corner_changed = false;
    for (int i = 0; i < 70 * 50; ++i) {
      if (i % 70 >= 64 || i / 70 >= 48)
        ASSERT_EQ(a[i], raw[i]) << i % 70 << "," << i / 70;
      else
        corner_changed |= a[i] != raw[i];
    }
    EXPECT_TRUE(corner_changed) << camera;
  }
  // init drops the model again.
  ASSERT_TRUE(yaml->init(64, 48));
  EXPECT_EQ(yaml->get_stereo_camera(), nullptr);
}

// Modes 1 and 2 solve the records in loops that must agree, to 1e-9
// relative, with the per-point camera functions they replace (sight vectors
// with position_from_sv; get3dposition_P), also on which records give a
// point; genPC stores those points. Unlike the Q route, neither resets the
// range grid.
TEST_F(CalibrationDirectory, StereoModesEqualThePerPointCameraFunctionsAndKeepTheGrid) {
  ListPtr gen = make_list_generator(64, 48);
  ASSERT_TRUE(gen->set_camera_params(dir_.c_str()));
  StereoCamera pair(*gen->get_stereo_camera());
  cv::Vec3d c0(pair.cameras[0].get_center()), c1(pair.cameras[1].get_center());
  // A record per pixel, disparities from -2 to 20 (a few rays then miss each
  // other by more than 1e-8) and one of 0.
  const int n = 64 * 48;
  std::vector<double> x(n), y(n), d(n), X(n), Y(n), Z(n), ok(n);
  for (int i = 0; i < n; ++i) {
    x[i] = i % 64;
    y[i] = i / 64;
    d[i] = i == 100 ? 0.0 : -2.0 + 0.37 * (i % 61);
    gen->add(x[i], y[i], d[i]);
  }
  const detail::RecordColumns in{x.data(), y.data(), d.data()};
  const detail::PositionColumns out{X.data(), Y.data(), Z.data(), ok.data()};
  for (int mode : {1, 2}) {
    if (mode == 1)
      detail::triangulate_rays(detail::ray_geometry(pair), in, n, out);
    else
      detail::triangulate_least_squares(detail::projection_geometry(pair), in, n, out);
    double worst = 0.0;
    int points = 0;
    for (int i = 0; i < n; ++i) {
      const cv::Point2d left(x[i], y[i]), right(x[i] - d[i], y[i]);
      cv::Vec3d position;
      bool exists = false;
      if (mode == 1) {
        double gap = 0.0;
        position = pair.position_from_sv(cv::Vec3d(pair.cameras[0].get_sight_vector(left)),
                                         cv::Vec3d(pair.cameras[1].get_sight_vector(right)), gap,
                                         c0, c1);
        exists = !(gap > 1e-8);
      } else {
        position = pair.get3dposition_P(left, right, &exists);
      }
      ASSERT_EQ(exists, ok[i] != 0.0) << "mode " << mode << ", record " << i;
      if (!exists) continue;
      ++points;
      const cv::Vec3d loop(X[i], Y[i], Z[i]);
      worst = std::max(worst, cv::norm(position - loop) / cv::norm(position));
    }
    EXPECT_LE(worst, 1e-9) << "mode " << mode;
    ASSERT_EQ(gen->genPC(mode), points) << mode;
  }

  // One record left: modes 2 and 1 write its cell and keep every other.
  ASSERT_EQ(gen->genPC(0), n);
  const std::vector<int> before(gen->get_rangegrid(), gen->get_rangegrid() + n);
  gen->clear();
  gen->add(30, 21, 6);
  for (int mode : {2, 1}) {
    ASSERT_EQ(gen->genPC(mode), 1) << mode;
    std::vector<int> expected = before;
    expected[21 * 64 + 30] = 0;
    EXPECT_EQ(std::vector<int>(gen->get_rangegrid(), gen->get_rangegrid() + n), expected) << mode;
  }
  // The Q route starts from an empty grid.
  ASSERT_EQ(gen->genPC(0), 1);
  EXPECT_EQ(std::count(gen->get_rangegrid(), gen->get_rangegrid() + n, -1), n - 1);
}

using Bytes = std::vector<std::uint8_t>;
constexpr unsigned int kNone = 0xFFFFFFFFu;

Bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

struct TempFile {
  explicit TempFile(const std::string& name) : path(testing::TempDir() + "sl3d_ply_" + name) {}
  ~TempFile() { std::remove(path.c_str()); }
  const std::string path;
};

// The file writePLY must write, built from the format: the header, 15-byte
// vertices (x, y, z as little-endian floats, then red, green, blue), then
// with a grid one list per cell: a count byte, 0 or 1, and the index.
Bytes expected_file(const std::vector<PointCloudElement>& points,
                    const std::vector<unsigned int>& grid, int cols, int rows) {
  const bool with_grid = !grid.empty();
  std::string h = "ply\nformat binary_little_endian 1.0\ncomment VCGLIB generated\n";
  if (with_grid) {
    h += "obj_info num_cols " + std::to_string(cols) + "\nobj_info num_rows " +
         std::to_string(rows) + "\n";
  }
  h += "element vertex " + std::to_string(points.size()) + "\n";
  h += "property float x\nproperty float y\nproperty float z\n";
  h += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
  h += "element face 0\n";
  if (with_grid) {
    h += "element range_grid " + std::to_string(rows * cols) +
         "\nproperty list uchar int vertex_indices\n";
  }
  h += "end_header\n";
  Bytes file(h.begin(), h.end());
  for (const PointCloudElement& p : points) {
    const auto* xyz = reinterpret_cast<const std::uint8_t*>(&p.x);
    file.insert(file.end(), xyz, xyz + 12);
    file.insert(file.end(), {p.red, p.green, p.blue});
  }
  for (unsigned int index : grid) {
    file.push_back(index == kNone ? 0 : 1);
    for (int k = 0; k < 4 && index != kNone; ++k) file.push_back((index >> (8 * k)) & 0xFF);
  }
  return file;
}

// Buffer boundaries of large clouds are crossed by the tool's scans, whose
// files cli_test decodes.
TEST(WritePly, SmallEmptyDegenerateAndFailedWrites) {
  const TempFile ply_file("small.ply");
  // Two points, values whose bit patterns are easy to garble among them,
  // and a 3x2 grid (the writer does not check its indices).
  const std::vector<PointCloudElement> points = {{-0.0f, 1e-38f, 3.4e38f, 1, 2, 3, 9},
                                                 {-1.5f, 2.25f, 1000.0f, 250, 128, 0, 9}};
  const std::vector<unsigned int> grid = {kNone, 1u, kNone, 0x12345678u, 0u, kNone};
  EXPECT_EQ(writePLY(ply_file.path, points.data(), 2, grid.data(), 3, 2), 0);
  EXPECT_EQ(read_file(ply_file.path), expected_file(points, grid, 3, 2));
  // No points, no grid: the header alone; negative counts are no vertices.
  for (int count : {0, -5}) {
    EXPECT_EQ(writePLY(ply_file.path, points.data(), count, nullptr, 0, 0), 0);
    EXPECT_EQ(read_file(ply_file.path), expected_file({}, {}, 0, 0)) << count;
  }

  // A grid with no columns or no rows stops after the first three lines.
  for (const auto& [cols, rows] : {std::pair<int, int>{0, 1}, {1, 0}, {0, 0}}) {
    EXPECT_EQ(writePLY(ply_file.path, points.data(), 1, grid.data(), cols, rows), 0);
    const Bytes b = read_file(ply_file.path);
    EXPECT_EQ(std::string(b.begin(), b.end()),
              "ply\nformat binary_little_endian 1.0\ncomment VCGLIB generated\n")
        << cols << "x" << rows;
  }

  // A file that cannot be opened: 0 and nothing created.
  const std::string dir = testing::TempDir() + "sl3d_ply_no_such_dir";
  ASSERT_FALSE(exists(dir));
  EXPECT_EQ(writePLY(dir + "/cloud.ply", points.data(), 1, nullptr, 0, 0), 0);
  EXPECT_FALSE(exists(dir));
  // A write that fails when the file is closed is reported as EOF. Without
  // the device the check cannot run; the skip says so instead of passing.
  if (!exists("/dev/full")) GTEST_SKIP() << "/dev/full is missing: failed close not checked";
  EXPECT_EQ(writePLY("/dev/full", points.data(), 1, nullptr, 0, 0), EOF);
}

constexpr int kWidth = 16, kHeight = 12;

// A gentle slope over the whole image (steps of 0.6 and 0.3 px, never a
// whole number), records row by row.
double slope(double x, double y) { return 30.0 + 0.6 * x + 0.3 * y + 0.01; }

std::vector<double> slope_records() {
  std::vector<double> r;
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) r.insert(r.end(), {double(x), double(y), slope(x, y), 1.0});
  return r;
}

double& disparity_at(std::vector<double>& r, int x, int y) {
  return r[4 * (std::size_t(y) * kWidth + x) + 2];
}

TEST(DisparityFilter, DropsDecodeRejectsSpikesAndIslandsAndRefusesBadArguments) {
  // Bad arguments remove nothing; the slope alone stays whole; records off
  // the image or between pixels are left alone.
  std::vector<double> r = slope_records();
  const std::vector<double> copy = r;
  EXPECT_FALSE(filter_disparity_records(nullptr, 4, kWidth, kHeight, nullptr).ok);
  EXPECT_FALSE(filter_disparity_records(r.data(), -1, kWidth, kHeight, nullptr).ok);
  EXPECT_FALSE(filter_disparity_records(r.data(), 4, 0, kHeight, nullptr).ok);
  EXPECT_TRUE(filter_disparity_records(nullptr, 0, kWidth, kHeight, nullptr).ok);
  EXPECT_EQ(r, copy);
  DisparityFilterReport report =
      filter_disparity_records(r.data(), kWidth * kHeight, kWidth, kHeight, nullptr);
  EXPECT_TRUE(report.ok);
  EXPECT_EQ(report.kept, kWidth * kHeight);
  std::vector<double> odd = {-3.0, 2.0, 40.0, 1.0, 2.5, 2.0, 40.0, 1.0, 99.0, 99.0, 7.0, 1.0};
  EXPECT_EQ(filter_disparity_records(odd.data(), 3, kWidth, kHeight, nullptr).kept, 3);

  std::vector<std::uint8_t> status(kWidth * kHeight, 0);
  status[3 * kWidth + 4] = 201;   // decode rejected at (4, 3)
  disparity_at(r, 10, 6) += 7.5;  // a lone spike
  // A 2 x 2 island far off the slope (its neighbours then fail the step
  // test too, which is what a depth edge costs).
  for (int y = 8; y < 10; ++y)
    for (int x = 2; x < 4; ++x) disparity_at(r, x, y) = 60.5;
  DisparityFilterOptions options;
  options.min_patch_size = 5;
  report = filter_disparity_records(r.data(), kWidth * kHeight, kWidth, kHeight, status.data(),
                                    nullptr, options);
  ASSERT_TRUE(report.ok);
  EXPECT_EQ(report.decode_rejected, 1);
  EXPECT_EQ(report.removed() + report.kept, kWidth * kHeight);
  EXPECT_EQ(report.integer_refitted, 0);
  double previous = -1.0;
  for (int i = 0; i < report.kept; ++i) {
    const double* rec = &r[4 * std::size_t(i)];
    EXPECT_EQ(rec[2], slope(rec[0], rec[1])) << "at " << rec[0] << ", " << rec[1];
    EXPECT_EQ(rec[3], 1.0);
    const double order = rec[1] * kWidth + rec[0];
    EXPECT_GT(order, previous);
    previous = order;
    EXPECT_FALSE(rec[0] == 4 && rec[1] == 3);
  }
  // The slope loses only the rejects, the spike and the island's rim.
  EXPECT_GE(report.kept, kWidth * kHeight - 1 - 1 - 4 - 12 - 4);
}

}  // namespace
}  // namespace sl3d
