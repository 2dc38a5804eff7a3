#include <sl3d/sgbm/sgbm.h>

#include <cstring>

#include <opencv2/calib3d.hpp>

void SGBMaching::destroy() { delete this; }

SGBMaching::~SGBMaching() {
  status_.release();
  left_.release();
  right_.release();
}

bool SGBMaching::init(int width, int height) {
  if (!PointCloudGenerator::init(width, height)) return false;
  status_.create(height, width, CV_8UC1);
  left_.create(height, width, CV_8UC1);
  right_.create(height, width, CV_8UC1);
  return true;
}

void SGBMaching::setparams(void* p) { std::memcpy(&params_, p, sizeof(SGBMParams)); }

void SGBMaching::setpict(unsigned char* img, unsigned long step, int camera, int /*index*/) {
  if (camera != 0 && camera != 1) return;
  const std::size_t stride = step == 0 ? static_cast<std::size_t>(width()) : step;
  const cv::Mat wrapped(height(), width(), CV_8UC1, img, stride);
  wrapped.copyTo(camera == 0 ? left_ : right_);
}

int SGBMaching::exec() {
  // OpenCV 4.6 terminates the process, instead of raising, when the matcher
  // is run with a negative number of disparities; raise its exception here.
  if (params_.num_disparities < 0) {
    CV_Error(cv::Error::StsOutOfRange, "SGBM number of disparities is negative");
  }
  const int cn = left_.channels();
  const int bs = params_.block_size;
  cv::Ptr<cv::StereoSGBM> matcher = cv::StereoSGBM::create(
      params_.min_disparity, params_.num_disparities, bs, 8 * cn * bs * bs, 32 * cn * bs * bs,
      params_.disp12_max_diff, params_.pre_filter_cap, params_.uniqueness_ratio,
      params_.speckle_window_size, params_.speckle_range, params_.mode);
  cv::Mat fixed_point;
  matcher->compute(left_, right_, fixed_point);
  cv::Mat disparity;
  fixed_point.convertTo(disparity, CV_64F, 0.0625, 0.0);

  clear_disparities();
  const double min_disparity = params_.min_disparity;
  for (int y = 0; y < disparity.rows; ++y) {
    const double* d = disparity.ptr<double>(y);
    unsigned char* status = status_.ptr<unsigned char>(y);
    for (int x = 0; x < disparity.cols; ++x) {
      // The matcher marks unmatched pixels below the min disparity.
      if (d[x] > min_disparity) {
        status[x] = kAccepted;
        append_disparity(x, y, d[x]);
      } else {
        status[x] = kRejected;
      }
    }
  }
  return get_disparity_cnt();
}

int SGBMaching::genPC(int mode) {
  ByteImage texture(height(), width());
  for (int y = 0; y < height(); ++y) {
    std::memcpy(texture.row(y).data(), left_.ptr<unsigned char>(y), static_cast<std::size_t>(width()));
  }
  return generate_pointcloud(mode, texture);
}
