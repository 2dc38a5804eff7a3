#include <sl3d/sgbm/sgbm.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include <opencv2/calib3d.hpp>

#include <sl3d/pointcloud/threads.h>

void SGBMaching::destroy() { delete this; }

SGBMaching::~SGBMaching() {
  status_.release();
  left_.release();
  right_.release();
  fixed_point_.release();
}

bool SGBMaching::init(int width, int height) {
  if (!PointCloudGenerator::init(width, height)) return false;
  // OpenCV reports exhausted memory as its own exception; init reports it
  // as false, like the base buffers.
  try {
    status_.create(height, width, CV_8UC1);
    left_.create(height, width, CV_8UC1);
    right_.create(height, width, CV_8UC1);
  } catch (const cv::Exception&) {
    return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void SGBMaching::setparams(void* p) { std::memcpy(&params_, p, sizeof(SGBMParams)); }

void SGBMaching::setpict(unsigned char* img, unsigned long step, int camera, int /*index*/) {
  if (camera != 0 && camera != 1) return;
  const std::size_t stride = step == 0 ? static_cast<std::size_t>(width()) : step;
  const cv::Mat wrapped(height(), width(), CV_8UC1, img, stride);
  wrapped.copyTo(camera == 0 ? left_ : right_);
}

namespace {

// Parameters with which OpenCV 4.6's matcher would crash, abort or overflow
// instead of raising its exception are refused here, with OpenCV's
// exception, before it runs:
// - a negative number of disparities terminates the process;
// - a block larger than the image reads outside its buffers (segfaults seen
//   from about 5 x the image height on); no image that small can be matched
//   with such a block anyway;
// - P2 = 32 * cn * bs^2 must fit an int (from bs = 8192 on it overflows);
// - so must min disparity + number of disparities, which the matcher adds
//   in int;
// - in the 3-way mode, a search range leaving no column to match aborts
//   (OpenCV raises for an empty range, but throws again while unwinding).
void refuse_what_the_matcher_cannot_run(const SGBMParams& p, const cv::Mat& left) {
  if (p.num_disparities < 0) {
    CV_Error(cv::Error::StsOutOfRange, "SGBM number of disparities is negative");
  }
  if (p.block_size > std::min(left.cols, left.rows)) {
    CV_Error(cv::Error::StsOutOfRange,
             cv::format("SGBM block size %d exceeds the %dx%d image", p.block_size, left.cols,
                        left.rows));
  }
  const long long p2 = 32LL * left.channels() * p.block_size * p.block_size;
  if (p2 > INT_MAX) {
    CV_Error(cv::Error::StsOutOfRange,
             cv::format("SGBM block size %d makes P2 overflow an int", p.block_size));
  }
  const long long max_disparity = static_cast<long long>(p.min_disparity) + p.num_disparities;
  if (max_disparity > INT_MAX) {
    CV_Error(cv::Error::StsOutOfRange,
             cv::format("SGBM min disparity %d + %d disparities overflows an int", p.min_disparity,
                        p.num_disparities));
  }
  const long long columns = left.cols + std::min(p.min_disparity, 0) - std::max(max_disparity, 0LL);
  if (p.mode == cv::StereoSGBM::MODE_SGBM_3WAY && columns <= 0) {
    CV_Error(cv::Error::StsOutOfRange,
             cv::format("SGBM search range of %d disparities from %d leaves no column of the "
                        "%d-wide image to match",
                        p.num_disparities, p.min_disparity, left.cols));
  }
}

}  // namespace

namespace {

// OpenCV's thread count as the library's setting for the lifetime of the
// object, then as it was.
class OpenCvThreads {
 public:
  explicit OpenCvThreads(int n) : saved_(cv::getNumThreads()) { cv::setNumThreads(n); }
  ~OpenCvThreads() { cv::setNumThreads(saved_); }
  OpenCvThreads(const OpenCvThreads&) = delete;
  OpenCvThreads& operator=(const OpenCvThreads&) = delete;

 private:
  int saved_;
};

}  // namespace

int SGBMaching::exec() {
  refuse_what_the_matcher_cannot_run(params_, left_);
  const int cn = left_.channels();
  const int bs = params_.block_size;
  cv::Ptr<cv::StereoSGBM> matcher = cv::StereoSGBM::create(
      params_.min_disparity, params_.num_disparities, bs, 8 * cn * bs * bs, 32 * cn * bs * bs,
      params_.disp12_max_diff, params_.pre_filter_cap, params_.uniqueness_ratio,
      params_.speckle_window_size, params_.speckle_range, params_.mode);
  {
    const OpenCvThreads threads(sl3d::num_threads());
    matcher->compute(left_, right_, fixed_point_);
  }

  // The matcher's 16-bit disparities have 4 fractional bits: d * 0.0625 is
  // the exact value in pixels (as convertTo with that scale would give it),
  // without a 64-bit copy of the whole image.
  clear_disparities();
  const double min_disparity = params_.min_disparity;
  for (int y = 0; y < fixed_point_.rows; ++y) {
    const short* fixed = fixed_point_.ptr<short>(y);
    unsigned char* status = status_.ptr<unsigned char>(y);
    for (int x = 0; x < fixed_point_.cols; ++x) {
      const double d = fixed[x] * 0.0625 + 0.0;
      // The matcher marks unmatched pixels below the min disparity.
      if (d > min_disparity) {
        status[x] = kAccepted;
        append_disparity(x, y, d);
      } else {
        status[x] = kRejected;
      }
    }
  }
  return get_disparity_cnt();
}

// The left image is the texture, read in place: init made it a continuous
// height x width plane.
int SGBMaching::genPC(int mode) { return generate_pointcloud(mode, left_.ptr<std::uint8_t>()); }
