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

PointCloudGenerator::PointCloudGenerator() = default;

PointCloudGenerator::~PointCloudGenerator() { dispose(); }

void PointCloudGenerator::dispose() {
  stereo_camera_.reset();
  q_.reset();
  disparities_.reset();
  disparity_count_ = 0;
  range_grid_.reset();
  points_.reset();
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
  points_.reset(new (std::nothrow) PointCloudElement[n]);
  if (!points_) return false;
  range_grid_.reset(new (std::nothrow) int[n]);
  if (!range_grid_) return false;
  std::fill_n(range_grid_.get(), n, -1);
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

void PointCloudGenerator::emit_point(double x, double y, double px, double py, double pz,
                                     const std::uint8_t* texture) {
  PointCloudElement& p = points_[point_count_];
  p.x = static_cast<float>(px);
  p.y = static_cast<float>(py);
  p.z = static_cast<float>(pz);
  const long pixel = static_cast<long>(y) * width_ + static_cast<long>(x);
  p.red = p.green = p.blue = texture[pixel];
  range_grid_[pixel] = point_count_;
  ++point_count_;
}

// Least squares over both projection matrices. Unlike the Q route, the
// range grid is not reset: cells of records without a point keep what an
// earlier generation wrote there.
int PointCloudGenerator::generate_pointcloud_P(const ByteImage& texture) {
  point_count_ = 0;
  const double* rec = disparities_.get();
  for (int j = 0; j < disparity_count_; ++j, rec += 4) {
    bool ok = false;
    const cv::Vec3d X = stereo_camera_->get3dposition_P(cv::Point2d(rec[0], rec[1]),
                                                        cv::Point2d(rec[0] - rec[2], rec[1]), &ok);
    if (ok) emit_point(rec[0], rec[1], X[0], X[1], X[2], texture.data());
  }
  return point_count_;
}

// Closest approach of the two sight rays; a record whose rays miss each
// other by more than 1e-8 gives no point. The range grid is not reset.
int PointCloudGenerator::generate_pointcloud_V(const ByteImage& texture) {
  point_count_ = 0;
  UndistortCamera& left = stereo_camera_->cameras[0];
  UndistortCamera& right = stereo_camera_->cameras[1];
  cv::Vec3d c0 = cv::Vec3d(left.get_center());
  cv::Vec3d c1 = cv::Vec3d(right.get_center());
  const double* rec = disparities_.get();
  for (int j = 0; j < disparity_count_; ++j, rec += 4) {
    const cv::Vec3d sv1(right.get_sight_vector(cv::Point2d(rec[0] - rec[2], rec[1])));
    const cv::Vec3d sv0(left.get_sight_vector(cv::Point2d(rec[0], rec[1])));
    double distance = 0.0;
    const cv::Vec3d X = stereo_camera_->position_from_sv(sv0, sv1, distance, c0, c1);
    if (!(distance > 1e-8)) emit_point(rec[0], rec[1], X[0], X[1], X[2], texture.data());
  }
  return point_count_;
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
    emit_point(records(0, j), records(1, j), inv * r(0), inv * r(1), inv * r(2), tex);
  }
  return point_count_;
}
