#include "sl3d/camera/camera_undistort.h"

#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include <opencv2/calib3d.hpp>

#include <sl3d/camera/yaml_reader.h>
#include <opencv2/imgproc.hpp>

namespace {

// The system's interpolation selector -> OpenCV's interpolation flag.
int opencv_interpolation(int selector) {
  switch (selector) {
    case 0: return cv::INTER_NEAREST;
    case 2: return cv::INTER_CUBIC;
    case 3: return cv::INTER_LANCZOS4;
    default: return cv::INTER_LINEAR;
  }
}

}  // namespace

UndistortCamera::UndistortCamera(cv::Size_<int> size, std::string name)
    : PinHoleCamera(size, std::move(name)) {}

UndistortCamera::UndistortCamera(const UndistortCamera& other)
    : PinHoleCamera(other),
      use_float_map(other.use_float_map),
      interpolation(other.interpolation),
      roi(other.roi),
      fill(other.fill) {
  other.map1.copyTo(map1);
  other.map2.copyTo(map2);
}

UndistortCamera& UndistortCamera::operator=(const UndistortCamera& other) {
  if (this == &other) return *this;
  PinHoleCamera::operator=(other);
  use_float_map = other.use_float_map;
  interpolation = other.interpolation;
  roi = other.roi;
  fill = other.fill;
  // Fresh buffers: whoever still holds our old maps keeps them unchanged.
  map1 = other.map1.clone();
  map2 = other.map2.clone();
  return *this;
}

UndistortCamera::~UndistortCamera() = default;

void UndistortCamera::initMap(DistortCamera& source, cv::Mat_<double>& Rrect) {
  const int map_type = use_float_map != 0 ? CV_32FC1 : 2;
  cv::initUndistortRectifyMap(source.K, source.D, Rrect, K, size, map_type, map1, map2);
}

void UndistortCamera::remap(cv::Mat& src, cv::Mat& dst) {
  if (dst.empty()) dst = cv::Mat(src.size(), src.type(), fill);
  cv::remap(src, dst, map1, map2, opencv_interpolation(interpolation), cv::BORDER_TRANSPARENT,
            cv::Scalar());
}

bool UndistortCamera::save(cv::FileStorage* fs, std::string mapPath) {
  cv::FileStorage own;
  if (!fs) own.open(name + "_param.yaml", cv::FileStorage::WRITE);
  cv::FileStorage& out = fs ? *fs : own;
  if (!out.isOpened()) return false;
  PinHoleCamera::save(&out);
  out << name + "_roi" << "[:" << roi.x << roi.y << roi.width << roi.height << "]";
  if (!fs) own.release();
  if (mapPath.empty()) return true;

  std::ofstream file(mapPath, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!file.is_open()) return false;
  return save_map(file, map1) && save_map(file, map2);
}

bool UndistortCamera::load(cv::FileStorage* fs, std::string mapPath) {
  cv::FileStorage own;
  if (!fs) sl3d::open_yaml_storage(name + "_param.yaml", own);
  cv::FileStorage& in = fs ? *fs : own;
  if (!in.isOpened()) return false;
  if (!PinHoleCamera::load(&in)) return false;
  std::vector<int> r;
  in[name + "_roi"] >> r;
  roi = r.size() == 4 ? cv::Rect(r[0], r[1], r[2], r[3]) : cv::Rect();
  if (!fs) own.release();
  if (mapPath.empty()) return true;

  std::ifstream file(mapPath, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    // Still usable for projection; only image rectification needs the maps.
    std::cerr << "!!Warning!! Rectify map not found. You must do rectify and make map.\n";
    return true;
  }
  return load_map(file, map1) && load_map(file, map2);
}
