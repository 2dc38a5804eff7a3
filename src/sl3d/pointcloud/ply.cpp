#include <sl3d/pointcloud/ply.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace {

constexpr unsigned int kNoPoint = 0xFFFFFFFFu;

// Vertex records are 15 bytes: x, y, z as little-endian floats, then red,
// green and blue. The padding byte of PointCloudElement is not written.
void write_vertices(std::FILE* f, const PointCloudElement* points, int count) {
  constexpr std::size_t kRecord = 15;
  constexpr int kBatch = 4096;
  std::vector<unsigned char> buf(kRecord * kBatch);
  for (int start = 0; start < count; start += kBatch) {
    const int n = std::min(kBatch, count - start);
    unsigned char* out = buf.data();
    for (int i = 0; i < n; ++i, out += kRecord) {
      const PointCloudElement& p = points[start + i];
      std::memcpy(out, &p.x, 12);
      out[12] = p.red;
      out[13] = p.green;
      out[14] = p.blue;
    }
    std::fwrite(buf.data(), kRecord, static_cast<std::size_t>(n), f);
  }
}

// Each grid entry is a PLY list: 0 (empty) or 1 followed by the point index.
void write_range_grid(std::FILE* f, const unsigned int* grid, long cells) {
  std::vector<unsigned char> buf;
  buf.reserve(5 * 4096);
  for (long i = 0; i < cells; ++i) {
    if (grid[i] == kNoPoint) {
      buf.push_back(0);
    } else {
      unsigned char rec[5] = {1, 0, 0, 0, 0};
      std::memcpy(rec + 1, &grid[i], 4);
      buf.insert(buf.end(), rec, rec + 5);
    }
    if (buf.size() >= 5 * 4096 - 5) {
      std::fwrite(buf.data(), 1, buf.size(), f);
      buf.clear();
    }
  }
  std::fwrite(buf.data(), 1, buf.size(), f);
}

}  // namespace

int writePLY(std::string filename, const PointCloudElement* points, int count,
             const unsigned int* range_grid, int num_cols, int num_rows) {
  static_assert(sizeof(float) == 4, "PLY floats are 4 bytes");
  count = std::max(count, 0);
  std::FILE* f = std::fopen(filename.c_str(), "wb");
  if (f == nullptr) return 0;
  std::fputs("ply\n", f);
  std::fputs("format binary_little_endian 1.0\n", f);
  std::fputs("comment VCGLIB generated\n", f);
  if (range_grid != nullptr) {
    if (num_cols == 0 || num_rows == 0) {
      std::fclose(f);
      return 0;
    }
    std::fprintf(f, "obj_info num_cols %d\n", num_cols);
    std::fprintf(f, "obj_info num_rows %d\n", num_rows);
  }
  std::fprintf(f, "element vertex %d\n", count);
  std::fputs("property float x\nproperty float y\nproperty float z\n", f);
  std::fputs("property uchar red\nproperty uchar green\nproperty uchar blue\n", f);
  std::fputs("element face 0\n", f);
  if (range_grid != nullptr) {
    std::fprintf(f, "element range_grid %d\n", num_rows * num_cols);
    std::fputs("property list uchar int vertex_indices\n", f);
  }
  std::fputs("end_header\n", f);
  if (count > 0) write_vertices(f, points, count);
  if (range_grid != nullptr) {
    write_range_grid(f, range_grid, static_cast<long>(num_rows) * num_cols);
  }
  return std::fclose(f);
}
