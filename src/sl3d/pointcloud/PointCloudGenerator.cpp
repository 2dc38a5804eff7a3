#include <sl3d/pointcloud/PointCloudGenerator.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include <Eigen/Dense>

#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>

extern "C" iPointCloudGenerator* createPointCloudGenerator(int kind) {
  PointCloudGenerator* gen = nullptr;
  if (kind == 1) {
    gen = new (std::nothrow) SGBMaching();
  } else {
    gen = new (std::nothrow) PhaseShift();
  }
  if (gen != nullptr) gen->verbose = 1;
  return gen;
}

PointCloudGenerator::~PointCloudGenerator() { dispose(); }

void PointCloudGenerator::dispose() {
  // No stereo model can be loaded yet, so there is nothing to delete here.
  stereo_camera_ = nullptr;
  q_.reset();
  disparities_.reset();
  disparity_count_ = 0;
  range_grid_.reset();
  points_.reset();
  point_count_ = 0;
}

bool PointCloudGenerator::init(int width, int height) {
  dispose();
  width_ = width;
  height_ = height;
  // The pixel count is a 32-bit product, as the buffers' element counts are.
  pixel_count_ = static_cast<int>(static_cast<unsigned>(width) * static_cast<unsigned>(height));
  const long n = pixel_count_;
  points_.reset(new (std::nothrow) PointCloudElement[n]);
  if (!points_) return false;
  range_grid_.reset(new (std::nothrow) int[n]);
  if (!range_grid_) return false;
  disparities_.reset(new (std::nothrow) double[4 * n]);
  return static_cast<bool>(disparities_);
}

bool PointCloudGenerator::set_camera_params(const double* q) {
  q_.reset(new (std::nothrow) double[16]);
  if (!q_) return false;
  std::copy(q, q + 16, q_.get());
  return true;
}

bool PointCloudGenerator::set_camera_params(const char* dir) {
  // Constructing the path base throws std::logic_error for a null `dir`.
  const std::string base(dir);
  (void)base;
  // Both file sets of a calibration directory need the stereo camera model,
  // which this build does not load yet: both routes report failure and any
  // Q set earlier is kept.
  if (verbose) std::printf("Trying create stereo camera from Hmat...\n");
  if (verbose) std::printf(">> Failure\n");
  if (verbose) std::printf("Trying create stereo camera from yaml...\n");
  if (verbose) std::printf(">> Failure\n");
  return false;
}

void PointCloudGenerator::rectify(unsigned char*, int, int, unsigned long, int) {
  // Without a stereo model the image stays as it is.
  if (stereo_camera_ == nullptr) return;
}

int PointCloudGenerator::generate_pointcloud(int mode, const ByteImage& texture) {
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
  return generate_pointcloud_Q(texture);
}

int PointCloudGenerator::generate_pointcloud_Q(const ByteImage& texture) {
  using RowMajor4 = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
  const int n = disparity_count_;
  const Eigen::Map<const Eigen::Matrix<double, 4, Eigen::Dynamic>> records(disparities_.get(), 4, n);
  const RowMajor4 q = Eigen::Map<const RowMajor4>(q_.get());

  std::memset(range_grid_.get(), 0xFF, sizeof(int) * static_cast<std::size_t>(pixel_count_));
  point_count_ = 0;
  const std::uint8_t* tex = texture.data();
  // Q times the 4 x N record matrix, one column at a time as the points are
  // emitted: no 4 x N temporary, which at full size would be as large as the
  // disparity list itself.
  for (int j = 0; j < n; ++j) {
    const Eigen::Vector4d r = q * records.col(j);
    if (r(3) == 0.0) continue;
    const double inv = 1.0 / r(3);
    PointCloudElement& p = points_[point_count_];
    p.x = static_cast<float>(inv * r(0));
    p.y = static_cast<float>(inv * r(1));
    p.z = static_cast<float>(inv * r(2));
    const long pixel = static_cast<long>(records(1, j)) * width_ + static_cast<long>(records(0, j));
    p.red = p.green = p.blue = tex[pixel];
    range_grid_[pixel] = point_count_;
    ++point_count_;
  }
  return point_count_;
}
