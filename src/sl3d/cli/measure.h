#ifndef SL3D_CLI_MEASURE_H_
#define SL3D_CLI_MEASURE_H_

// Runs a generator on one capture through the library's public interface and
// keeps what it produced, so the generator can be released before writing.

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/disparity_filter.h>

#include "method.h"

namespace sl3d {

constexpr int kPhaseShiftFrames = 13;

// The images of one scene in setpict order: per camera the 13 phase-shift
// frames, or the single textured image for block matching. All CV_8UC1 of
// one size.
struct Capture {
  std::vector<cv::Mat> frames[2];
  // True when the frames are this capture's own, to be measured once: raw
  // frames are then rectified in place instead of in copies.
  bool consumable = false;
  cv::Size size() const { return frames[0].empty() ? cv::Size() : frames[0][0].size(); }
};

// A read-only array: points or range grid of a measurement.
template <typename T>
class ArrayView {
 public:
  ArrayView() = default;
  ArrayView(const T* data, std::size_t size) : data_(data), size_(size) {}
  const T* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }

 private:
  const T* data_ = nullptr;
  std::size_t size_ = 0;
};

// Where the generator's geometry comes from: a Q matrix for rectified
// captures, or a calibration directory for raw ones, which are then
// rectified (copies) before intake and triangulated in `mode` 0, 1 or 2.
struct CameraSetup {
  std::array<double, 16> q{};
  std::string calib_dir;  // non-empty: raw captures
  std::vector<int> modes = {0};
  // Run sl3d::filter_disparities between exec and genPC: the tool removes
  // the generators' outliers at depth edges and light borders by default.
  bool filter = true;
};

struct Measurement {
  int width = 0;
  int height = 0;
  int mode = 0;
  // The generator's own buffers for the last mode measured (no copy), a
  // copy for earlier modes; `storage` keeps either alive.
  ArrayView<PointCloudElement> points;
  ArrayView<int> range_grid;  // per pixel, row-major: point index or -1
  std::shared_ptr<const void> storage;
  // Disparity records exec produced, and what the filter removed (all zero
  // without the filter).
  int records = 0;
  DisparityFilterReport filtered;
  double calib_ms = 0.0;        // loading the calibration directory
  double rectify_ms = 0.0;
  double intake_ms = 0.0;       // init, Q, parameters, images
  double exec_ms = 0.0;
  double filter_ms = 0.0;
  double genpc_ms = 0.0;
};

// One measurement per mode of `setup` (one exec, one genPC per mode).
// A calibration directory that does not load, or does not fit the
// capture's size, is an error naming the files at fault.
std::vector<Measurement> measure(Method method, const Capture& capture, const CameraSetup& setup,
                                 const MethodParams& params);

// Writes points and range grid as binary PLY under the pending file's
// temporary name and checks the result, since writePLY() cannot report a
// failed open.
class PendingFile;
void write_point_cloud(PendingFile& file, const Measurement& measurement);

class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  double elapsed_ms() const {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_)
        .count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

}  // namespace sl3d

#endif  // SL3D_CLI_MEASURE_H_
