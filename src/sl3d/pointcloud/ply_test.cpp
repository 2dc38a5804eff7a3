// The PLY writer: the header line by line, and the body decoded back from
// the layout that header declares (15-byte vertices, then one list per grid
// cell: a count byte, 0 or 1, and the little-endian index).

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr unsigned int kNone = 0xFFFFFFFFu;

Bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// A file name in the test's temporary directory, removed again afterwards.
struct TempFile {
  explicit TempFile(const std::string& name) : path(testing::TempDir() + "sl3d_ply_" + name) {}
  ~TempFile() { std::remove(path.c_str()); }
  const std::string path;
};

std::string expected_header(int vertices, int cols, int rows, bool grid) {
  std::string h = "ply\nformat binary_little_endian 1.0\ncomment VCGLIB generated\n";
  if (grid) {
    h += "obj_info num_cols " + std::to_string(cols) + "\nobj_info num_rows " +
         std::to_string(rows) + "\n";
  }
  h += "element vertex " + std::to_string(vertices) + "\n";
  h += "property float x\nproperty float y\nproperty float z\n";
  h += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
  h += "element face 0\n";
  if (grid) {
    h += "element range_grid " + std::to_string(rows * cols) +
         "\nproperty list uchar int vertex_indices\n";
  }
  return h + "end_header\n";
}

struct Decoded {
  std::vector<PointCloudElement> points;  // padding byte left 0
  std::vector<unsigned int> grid;         // kNone for an empty list
};

// Decodes a file whose header must be expected_header(...); the body must
// be consumed exactly.
Decoded decode(const Bytes& file, int vertices, int cols, int rows, bool grid) {
  Decoded d;
  const std::string header = expected_header(vertices, cols, rows, grid);
  EXPECT_GE(file.size(), header.size());
  EXPECT_EQ(std::string(file.begin(), file.begin() + std::min(file.size(), header.size())), header);
  std::size_t pos = header.size();
  for (int i = 0; i < vertices && pos + 15 <= file.size(); ++i, pos += 15) {
    PointCloudElement p{};
    std::memcpy(&p.x, &file[pos], 12);
    p.red = file[pos + 12];
    p.green = file[pos + 13];
    p.blue = file[pos + 14];
    d.points.push_back(p);
  }
  for (int i = 0; grid && i < rows * cols && pos < file.size(); ++i) {
    const std::uint8_t count = file[pos++];
    EXPECT_LE(count, 1) << "cell " << i;
    unsigned int index = kNone;
    if (count == 1 && pos + 4 <= file.size()) {
      index = file[pos] | file[pos + 1] << 8 | file[pos + 2] << 16 | unsigned(file[pos + 3]) << 24;
      pos += 4;
    }
    d.grid.push_back(index);
  }
  EXPECT_EQ(pos, file.size()) << "body shorter or longer than declared";
  return d;
}

TEST(WritePly, EmptyCloudsGiveCompleteHeaders) {
  // No points, no grid: exactly the header and nothing after it; negative
  // counts are written as no vertices.
  const TempFile plain("empty.ply");
  const PointCloudElement one{1, 2, 3, 4, 5, 6, 7};
  for (int count : {0, -5}) {
    EXPECT_EQ(writePLY(plain.path, &one, count, nullptr, 0, 0), 0);
    const Bytes a = read_file(plain.path);
    EXPECT_EQ(std::string(a.begin(), a.end()), expected_header(0, 0, 0, false)) << count;
  }
  // No points but a 3x2 grid: the header, then the six grid records alone.
  const unsigned int grid[6] = {kNone, 7u, kNone, kNone, 0x12345678u, kNone};
  EXPECT_EQ(writePLY(plain.path, nullptr, 0, grid, 3, 2), 0);
  const Decoded d = decode(read_file(plain.path), 0, 3, 2, true);
  EXPECT_EQ(d.grid, std::vector<unsigned int>(grid, grid + 6));
}

TEST(WritePly, FailuresAndDegenerateGrids) {
  // A file that cannot be opened: 0 and nothing created.
  const std::string dir = testing::TempDir() + "sl3d_ply_no_such_dir";
  const PointCloudElement p{1, 2, 3, 4, 5, 6, 0};
  ASSERT_FALSE(exists(dir));
  EXPECT_EQ(writePLY(dir + "/cloud.ply", &p, 1, nullptr, 0, 0), 0);
  EXPECT_FALSE(exists(dir));

  // A grid with no columns or no rows stops after the first three lines.
  const unsigned int grid[1] = {0};
  const TempFile ply_file("degenerate.ply");
  for (const auto& [cols, rows] : {std::pair<int, int>{0, 1}, {1, 0}, {0, 0}}) {
    EXPECT_EQ(writePLY(ply_file.path, &p, 1, grid, cols, rows), 0) << cols << "x" << rows;
    const Bytes b = read_file(ply_file.path);
    EXPECT_EQ(std::string(b.begin(), b.end()),
              "ply\nformat binary_little_endian 1.0\ncomment VCGLIB generated\n");
  }

  // A write that fails when the file is closed is reported as EOF. Without
  // the device the check cannot run; the skip says so instead of passing.
  if (!exists("/dev/full")) GTEST_SKIP() << "/dev/full is missing: failed close not checked";
  EXPECT_EQ(writePLY("/dev/full", &p, 1, nullptr, 0, 0), EOF);
}

TEST(WritePly, RoundTripOfARealisticCloud) {
  // A 700 x 600 grid, about 80 % filled: both sections run through the
  // writer's buffer several times.
  const int cols = 700, rows = 600;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> coord(-2000.0f, 2000.0f);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<PointCloudElement> points;
  std::vector<unsigned int> grid(cols * rows, kNone);
  for (int i = 0; i < cols * rows; ++i) {
    if (byte(rng) < 51) continue;
    grid[i] = static_cast<unsigned int>(points.size());
    const auto c = static_cast<unsigned char>(byte(rng));
    points.push_back({coord(rng), coord(rng), 500.0f + std::abs(coord(rng)), c,
                      static_cast<unsigned char>(255 - c), static_cast<unsigned char>(c / 2), 0});
  }
  // Values whose bit patterns are easy to garble.
  points[0].x = -0.0f;
  points[1].y = 1e-38f;
  points[2].z = 3.4e38f;
  const int n = static_cast<int>(points.size());

  const TempFile ply_file("cloud.ply");
  ASSERT_EQ(writePLY(ply_file.path, points.data(), n, grid.data(), cols, rows), 0);
  const Decoded d = decode(read_file(ply_file.path), n, cols, rows, true);
  ASSERT_EQ(d.points.size(), points.size());
  EXPECT_EQ(std::memcmp(d.points.data(), points.data(), points.size() * sizeof(PointCloudElement)),
            0);
  EXPECT_EQ(d.grid, grid);
}

}  // namespace
