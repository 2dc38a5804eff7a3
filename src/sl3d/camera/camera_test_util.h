#ifndef SL3D_CAMERA_CAMERA_TEST_UTIL_H_
#define SL3D_CAMERA_CAMERA_TEST_UTIL_H_

// Helpers shared by the camera-model tests: known cameras and a scratch
// directory.

#include <unistd.h>

#include <filesystem>
#include <string>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

namespace sl3d {
namespace testing {

inline cv::Mat_<double> intrinsics(double fx, double fy, double cx, double cy) {
  return (cv::Mat_<double>(3, 3) << fx, 0, cx, 0, fy, cy, 0, 0, 1);
}

inline cv::Mat_<double> rotation(double rx, double ry, double rz) {
  cv::Mat_<double> R;
  cv::Rodrigues(cv::Vec3d(rx, ry, rz), R);
  return R;
}

// The 3x4 projection K·[R|t].
inline cv::Mat_<double> projection(const cv::Mat_<double>& K, const cv::Mat_<double>& R,
                                   const cv::Vec3d& t) {
  cv::Mat_<double> Rt(3, 4);
  R.copyTo(Rt(cv::Rect(0, 0, 3, 3)));
  cv::Mat(t).copyTo(Rt(cv::Rect(3, 0, 1, 3)));
  return K * Rt;
}

// A fresh directory under the system temp dir, removed with the object.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& tag)
      : path_(std::filesystem::temp_directory_path() /
              ("sl3d_" + tag + "_" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Runs in `dir` for its lifetime (cameras write their own files relative to
// the working directory).
class WorkingDir {
 public:
  explicit WorkingDir(const std::filesystem::path& dir)
      : previous_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~WorkingDir() { std::filesystem::current_path(previous_); }

 private:
  std::filesystem::path previous_;
};

}  // namespace testing
}  // namespace sl3d

#endif  // SL3D_CAMERA_CAMERA_TEST_UTIL_H_
