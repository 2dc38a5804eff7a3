#ifndef SL3D_SGBM_SGBM_H_
#define SL3D_SGBM_SGBM_H_

// Semi-global block matching of a rectified stereo pair.
//
// Use SGBMaching (createPointCloudGenerator(1)) when the sensor captures one
// uniformly lit, textured image per camera instead of a projected pattern.
// setpict(img, step, 0, any) hands in the left image, camera 1 the right.
// exec() runs OpenCV's semi-global block matcher (a new matcher per call) and
// keeps every pixel whose disparity is strictly above the min disparity;
// genPC() reprojects those and colours them with the left image.
//
// OpenCV errors (mismatched sizes, parameters the matcher refuses) propagate
// out of exec() as cv::Exception. Parameters with which OpenCV's matcher
// would crash or abort the process raise the same exception instead: a
// negative number of disparities, a block larger than the image or whose
// P2 = 32 * bs^2 overflows an int, min disparity + number of disparities
// beyond INT_MAX, and in the 3-way mode a range that leaves no column.
//
// Threads: exec runs OpenCV's matcher with OpenCV's thread count set to
// sl3d::num_threads() (1 unless raised) and restores it afterwards.

#include <opencv2/core.hpp>

#include <sl3d/export.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>

// The block that setparams() copies: nine ints handed unchanged to
// cv::StereoSGBM::create (P1 and P2 are derived from the block size).
struct SL3D_EXPORT SGBMParams {
  int min_disparity = 0;
  int num_disparities = 256;
  int block_size = 5;
  int disp12_max_diff = 0;
  int pre_filter_cap = 0;
  int uniqueness_ratio = 20;
  int speckle_window_size = 100;
  int speckle_range = 1;
  int mode = 0;  // 0 = the matcher's default mode
};
static_assert(sizeof(SGBMParams) == 36, "SGBMParams is nine ints");

// The class name's spelling is kept as existing callers know it.
class SL3D_EXPORT SGBMaching : public PointCloudGenerator {
 public:
  // Status image values.
  static constexpr unsigned char kAccepted = 0;
  static constexpr unsigned char kRejected = 201;

  SGBMaching() = default;

  void destroy() override;
  // Base init, then height x width 8-bit status, left and right images.
  bool init(int width, int height) override;
  // Copies an SGBMParams block; no checking.
  void setparams(void* params) override;
  // Deep-copies `img` (step 0 = packed rows) into the left (camera 0) or
  // right (camera 1) image; other camera numbers are ignored. `index` is
  // not used.
  void setpict(unsigned char* img, unsigned long step, int camera, int index) override;
  // Fills the disparity list; returns the number of records.
  int exec() override;
  int genPC(int mode) override;

  const SGBMParams& params() const { return params_; }
  // 0 where a disparity was accepted, 201 where rejected.
  const cv::Mat& status_image() const { return status_; }

 protected:
  ~SGBMaching() override;

 private:
  SGBMParams params_;
  cv::Mat left_;
  cv::Mat right_;
  cv::Mat status_;
  // The matcher's fixed-point result, kept so that later runs reuse it.
  cv::Mat fixed_point_;
};

#endif  // SL3D_SGBM_SGBM_H_
