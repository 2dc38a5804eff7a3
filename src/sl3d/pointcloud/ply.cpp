#include <sl3d/pointcloud/ply.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace {

constexpr unsigned int kNoPoint = 0xFFFFFFFFu;

// The body goes out through one buffer, written as it fills: one pass over
// the points and one over the grid, no per-record calls into stdio.
class BodyWriter {
 public:
  explicit BodyWriter(std::FILE* f) : f_(f), buf_(kSize) {}
  ~BodyWriter() { flush(); }
  BodyWriter(const BodyWriter&) = delete;
  BodyWriter& operator=(const BodyWriter&) = delete;

  // Room for `bytes` more at the returned position; commit() them after.
  unsigned char* reserve(std::size_t bytes) {
    if (used_ + bytes > buf_.size()) flush();
    return buf_.data() + used_;
  }
  void commit(std::size_t bytes) { used_ += bytes; }
  void flush() {
    if (used_ > 0) std::fwrite(buf_.data(), 1, used_, f_);
    used_ = 0;
  }

 private:
  static constexpr std::size_t kSize = std::size_t{1} << 20;
  std::FILE* f_;
  std::vector<unsigned char> buf_;
  std::size_t used_ = 0;
};

// Vertex records are 15 bytes: x, y, z as little-endian floats, then red,
// green and blue. The padding byte of PointCloudElement is not written.
void write_vertices(BodyWriter& out, const PointCloudElement* points, int count) {
  constexpr std::size_t kRecord = 15;
  for (int i = 0; i < count; ++i) {
    unsigned char* rec = out.reserve(kRecord);
    const PointCloudElement& p = points[i];
    std::memcpy(rec, &p.x, 12);
    rec[12] = p.red;
    rec[13] = p.green;
    rec[14] = p.blue;
    out.commit(kRecord);
  }
}

// Each grid entry is a PLY list: 0 (empty) or 1 followed by the point index.
void write_range_grid(BodyWriter& out, const unsigned int* grid, long cells) {
  for (long i = 0; i < cells; ++i) {
    unsigned char* rec = out.reserve(5);
    if (grid[i] == kNoPoint) {
      rec[0] = 0;
      out.commit(1);
    } else {
      rec[0] = 1;
      std::memcpy(rec + 1, &grid[i], 4);
      out.commit(5);
    }
  }
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
  {
    BodyWriter body(f);
    if (count > 0) write_vertices(body, points, count);
    if (range_grid != nullptr) {
      write_range_grid(body, range_grid, static_cast<long>(num_rows) * num_cols);
    }
  }
  return std::fclose(f);
}
