#include <sl3d/pointcloud/PointCloudGenerator.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include <new>

#include <Eigen/Dense>
#include <opencv2/core.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/threads.h>
#include <sl3d/pointcloud/triangulation.h>

PointCloudGenerator::PointCloudGenerator() = default;

PointCloudGenerator::~PointCloudGenerator() { dispose(); }

void PointCloudGenerator::dispose() {
  stereo_camera_.reset();
  q_.reset();
  disparities_ = sl3d::detail::ZeroedBuffer();
  disparity_count_ = 0;
  range_grid_ = sl3d::detail::ZeroedBuffer();
  points_ = sl3d::detail::ZeroedBuffer();
  point_count_ = 0;
}

int PointCloudGenerator::checked_pixel_count(int width, int height) {
  const long long pixels = static_cast<long long>(width) * height;
  if (width < 0 || height < 0 || pixels > INT_MAX) throw std::bad_array_new_length();
  return static_cast<int>(pixels);
}

bool PointCloudGenerator::init(int width, int height) {
  const int pixels = checked_pixel_count(width, height);
  dispose();
  width_ = width;
  height_ = height;
  pixel_count_ = pixels;
  const std::size_t n = static_cast<std::size_t>(pixels);
  using sl3d::detail::ZeroedBuffer;
  points_ = ZeroedBuffer::allocate(n * sizeof(PointCloudElement));
  if (points_.empty() && n > 0) return false;
  range_grid_ = ZeroedBuffer::allocate(n * sizeof(int));
  if (range_grid_.empty() && n > 0) return false;
  std::fill_n(get_rangegrid(), n, -1);
  disparities_ = ZeroedBuffer::allocate(n * 4 * sizeof(double));
  return !disparities_.empty() || n == 0;
}

bool PointCloudGenerator::set_camera_params(const double* q) {
  q_.reset(new (std::nothrow) double[16]);
  if (!q_) return false;
  std::copy(q, q + 16, q_.get());
  return true;
}

bool PointCloudGenerator::set_camera_params(const char* dir) {
  // Paths are the directory as given plus fixed suffixes; a null `dir`
  // throws std::logic_error from the string construction.
  const std::string base(dir);
  const cv::Size size(width_, height_);
  const cv::Scalar no_fill(0, 0, 0, 0);
  if (verbose) std::printf("Trying create stereo camera from Hmat...\n");
  // The result of a load replaces the stereo model, a failed load (null)
  // included; the earlier model is released rather than leaked.
  stereo_camera_.reset(create_StereoCamera_from_Hmats(base + "/hmat0.dat", base + "/hmat1.dat",
                                                      base + "/rect.param", size, no_fill, no_fill));
  if (stereo_camera_ != nullptr) {
    if (verbose) std::printf(">> Success.\n");
    return take_q_from_stereo_camera();
  }
  if (verbose) std::printf(">> Failure\n");
  if (verbose) std::printf("Trying create stereo camera from yaml...\n");
  const std::vector<std::string> files = {base + "/cam0_param.yaml", base + "/cam1_param.yaml"};
  stereo_camera_.reset(create_StereoCamera(files, size, -1.0, 0, no_fill, no_fill));
  if (stereo_camera_ != nullptr) {
    if (verbose) std::printf(">> Success.\n");
    return take_q_from_stereo_camera();
  }
  if (verbose) std::printf(">> Failure\n");
  return false;
}

// A stereo model whose Q is not 4x4 (a YAML form without "Q") cannot give
// the generator its Q; that counts as a failed load.
bool PointCloudGenerator::take_q_from_stereo_camera() {
  cv::Mat q;
  stereo_camera_->Q.convertTo(q, CV_64F, 1.0, 0.0);
  if (q.rows != 4 || q.cols != 4) return false;
  double row_major[16];
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) row_major[4 * r + c] = q.at<double>(r, c);
  iPointCloudGenerator* self = this;
  return self->set_camera_params(static_cast<const double*>(row_major));
}

void PointCloudGenerator::rectify(unsigned char* img, int width, int height, unsigned long step,
                                  int camera) {
  if (stereo_camera_ == nullptr || (camera != 0 && camera != 1)) return;
  cv::Mat raw(height, width, CV_8UC1, img, step == 0 ? static_cast<std::size_t>(width) : step);
  cv::Mat rectified;
  stereo_camera_->cameras[camera].remap(raw, rectified);
  // The rectified image must be exactly the generator's size; it overwrites
  // the top-left corner of the caller's buffer, the rest keeps the raw data.
  if (rectified.rows != height_ || rectified.cols != width_ || rectified.type() != CV_8UC1) {
    CV_Error(cv::Error::StsBadSize,
             cv::format("rectify: camera %d's maps give a %dx%d image of type %d; the generator "
                        "was initialised for %dx%d 8-bit images",
                        camera, rectified.cols, rectified.rows, rectified.type(), width_, height_));
  }
  if (width_ > width || height_ > height) {
    CV_Error(cv::Error::StsBadSize,
             cv::format("rectify: a %dx%d buffer cannot hold the generator's %dx%d image", width,
                        height, width_, height_));
  }
  rectified.copyTo(raw(cv::Rect(0, 0, width_, height_)));
}

int PointCloudGenerator::generate_pointcloud(int mode, const std::uint8_t* texture) {
  if (stereo_camera_ == nullptr) {
    if (verbose) {
      if (mode != 0) std::printf("Stereo Camera not found. then use Q matrix.\n");
      if (!q_) {
        std::printf("Q Matrix Not found. PointCloud not can't be generated.\n");
        return 0;
      }
    }
    if (!q_) return 0;
    return generate_pointcloud_Q(texture);
  }
  switch (mode) {
    case 1:
      if (!q_ && verbose) std::printf("Q Matrix Not found. PointCloud not can't be generated.\n");
      return generate_pointcloud_V(texture);
    case 2:
      return generate_pointcloud_P(texture);
    default:
      return q_ ? generate_pointcloud_Q(texture) : 0;
  }
}

namespace {

// Records are solved in runs of this many: small enough for the positions to
// stay in the first-level cache, long enough for the solvers' loops.
constexpr int kRun = 512;
// Below this many records per thread the list is done on the calling thread.
constexpr int kMinRecordsPerChunk = 1 << 16;

long pixel_of(const double* rec, int width) {
  return static_cast<long>(rec[1]) * width + static_cast<long>(rec[0]);
}

// What one chunk of the list produced: its points are stored from the
// chunk's first record index on, and moved down to their final place once
// the counts of all earlier chunks are known. Each result has its own cache
// line: the count grows per point, and neighbouring results written by two
// threads would otherwise share a line.
struct alignas(64) ChunkResult {
  int count = 0;
  long first_pixel = -1;
  long last_pixel = -1;
  bool ascending = true;            // pixels strictly ascending in the chunk
  std::vector<int> records_without_point;
};

}  // namespace

// Each record (x, y, ...) gives at most one point, at pixel trunc(y) * width
// + trunc(x), in list order; the range grid maps the pixel to it. With
// several threads the list is cut into chunks of consecutive records. That
// gives the sequential result whenever every pixel occurs once and in
// ascending order, as in the lists the generators make; a list that is not
// (only a derived class could make one) is redone on one thread, so that
// the last record of a pixel wins as it would.
template <typename Solve>
int PointCloudGenerator::emit_points(const std::uint8_t* texture, const Solve& solve) {
  const int n = disparity_count_;
  const double* records = get_disparity_ptr();
  PointCloudElement* points = get_pointcloud_ptr();
  int* grid = get_rangegrid();
  const int width = width_;
  const auto run_chunk = [&](int begin, int end, ChunkResult& result) {
    double X[kRun], Y[kRun], Z[kRun], ok[kRun];
    const sl3d::detail::PositionColumns out{X, Y, Z, ok};
    long previous = -1;
    for (int run = begin; run < end; run += kRun) {
      const int m = std::min(kRun, end - run);
      solve(records + 4 * static_cast<std::size_t>(run), m, out);
      for (int i = 0; i < m; ++i) {
        const long pixel = pixel_of(records + 4 * static_cast<std::size_t>(run + i), width);
        result.ascending = result.ascending && pixel > previous;
        previous = pixel;
        if (ok[i] == 0.0) {
          result.records_without_point.push_back(run + i);
          continue;
        }
        PointCloudElement& p = points[begin + result.count];
        p.x = static_cast<float>(X[i]);
        p.y = static_cast<float>(Y[i]);
        p.z = static_cast<float>(Z[i]);
        p.red = p.green = p.blue = texture[pixel];
        grid[pixel] = begin + result.count;
        ++result.count;
      }
    }
    if (begin < end) {
      result.first_pixel = pixel_of(records + 4 * static_cast<std::size_t>(begin), width);
      result.last_pixel = previous;
    }
  };

  const int chunks = sl3d::detail::chunks_for(n, kMinRecordsPerChunk);
  std::vector<ChunkResult> results(static_cast<std::size_t>(chunks));
  sl3d::detail::run_chunks(chunks, n, [&](int k, int begin, int end) {
    run_chunk(begin, end, results[static_cast<std::size_t>(k)]);
  });
  bool in_raster_order = true;
  for (int k = 0; k < chunks; ++k) {
    const ChunkResult& r = results[static_cast<std::size_t>(k)];
    in_raster_order = in_raster_order && r.ascending &&
                      (k == 0 || r.first_pixel > results[static_cast<std::size_t>(k) - 1].last_pixel);
  }
  if (chunks > 1 && !in_raster_order) {
    ChunkResult whole;
    run_chunk(0, n, whole);
    point_count_ = whole.count;
    return point_count_;
  }
  // Move each chunk's points down behind the previous chunk's and renumber
  // their grid cells; nothing moves unless an earlier record had no point.
  int count = 0;
  for (int k = 0; k < chunks; ++k) {
    const ChunkResult& r = results[static_cast<std::size_t>(k)];
    const int begin = static_cast<int>(static_cast<long long>(n) * k / chunks);
    const int end = static_cast<int>(static_cast<long long>(n) * (k + 1) / chunks);
    if (count != begin && r.count > 0) {
      std::memmove(points + count, points + begin, sizeof(PointCloudElement) * r.count);
      auto skipped = r.records_without_point.begin();
      int index = count;
      for (int j = begin; j < end; ++j) {
        if (skipped != r.records_without_point.end() && *skipped == j) {
          ++skipped;
          continue;
        }
        grid[pixel_of(records + 4 * static_cast<std::size_t>(j), width)] = index++;
      }
    }
    count += r.count;
  }
  point_count_ = count;
  return point_count_;
}

namespace {

// The first three values of m records as columns, for the solvers' loops.
struct Columns {
  double x[kRun], y[kRun], d[kRun];
  sl3d::detail::RecordColumns gather(const double* records, int m) {
    for (int i = 0; i < m; ++i) {
      x[i] = records[4 * i];
      y[i] = records[4 * i + 1];
      d[i] = records[4 * i + 2];
    }
    return {x, y, d};
  }
};

}  // namespace

// Least squares over both projection matrices. Unlike the Q route, the
// range grid is not reset: cells of records without a point keep what an
// earlier generation wrote there.
int PointCloudGenerator::generate_pointcloud_P(const std::uint8_t* texture) {
  const sl3d::detail::ProjectionGeometry geometry = sl3d::detail::projection_geometry(*stereo_camera_);
  return emit_points(texture, [&](const double* rec, int m, const sl3d::detail::PositionColumns& out) {
    Columns columns;
    sl3d::detail::triangulate_least_squares(geometry, columns.gather(rec, m), m, out);
  });
}

// Closest approach of the two sight rays; a record whose rays miss each
// other by more than 1e-8 gives no point. The range grid is not reset.
int PointCloudGenerator::generate_pointcloud_V(const std::uint8_t* texture) {
  const sl3d::detail::RayGeometry geometry = sl3d::detail::ray_geometry(*stereo_camera_);
  return emit_points(texture, [&](const double* rec, int m, const sl3d::detail::PositionColumns& out) {
    Columns columns;
    sl3d::detail::triangulate_rays(geometry, columns.gather(rec, m), m, out);
  });
}

int PointCloudGenerator::generate_pointcloud_Q(const std::uint8_t* texture) {
  using RowMajor4 = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
  const RowMajor4 q = Eigen::Map<const RowMajor4>(q_.get());
  std::fill_n(get_rangegrid(), static_cast<std::size_t>(pixel_count_), -1);
  // Q times each record (x, y, d, 1), divided by W: no 4 x N temporary, which
  // at full size would be as large as the disparity list itself.
  return emit_points(texture, [&](const double* rec, int m, const sl3d::detail::PositionColumns& out) {
    for (int i = 0; i < m; ++i) {
      const Eigen::Vector4d r = q * Eigen::Map<const Eigen::Vector4d>(rec + 4 * i);
      out.ok[i] = r(3) != 0.0 ? 1.0 : 0.0;
      const double inv = 1.0 / r(3);
      out.X[i] = inv * r(0);
      out.Y[i] = inv * r(1);
      out.Z[i] = inv * r(2);
    }
  });
}
