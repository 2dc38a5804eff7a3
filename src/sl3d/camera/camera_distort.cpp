#include "sl3d/camera/camera_distort.h"

#include <stdexcept>
#include <utility>

#include <opencv2/calib3d.hpp>

#include <sl3d/camera/yaml_reader.h>

namespace {

[[noreturn]] void refuse_inverse() {
  throw std::logic_error("Invert projection is not available in DistortCamera.");
}

}  // namespace

DistortCamera::DistortCamera(cv::Size_<int> size, std::string name)
    : PinHoleCamera(size, std::move(name)) {}

DistortCamera::DistortCamera(const DistortCamera& other)
    : PinHoleCamera(other), D(other.D.clone()) {}

DistortCamera& DistortCamera::operator=(const DistortCamera& other) {
  PinHoleCamera::operator=(other);
  D = other.D.clone();
  return *this;
}

DistortCamera::~DistortCamera() = default;

cv::Point_<double> DistortCamera::project_forw(const cv::Point3_<double>& X) const {
  cv::Mat rvec;
  cv::Rodrigues(R, rvec);
  std::vector<cv::Point3_<float>> object{{static_cast<float>(X.x), static_cast<float>(X.y),
                                          static_cast<float>(X.z)}};
  std::vector<cv::Point_<float>> image;
  cv::projectPoints(object, rvec, T, K, D, image, cv::noArray(), 0);
  return {image[0].x, image[0].y};
}

cv::Point3_<double> DistortCamera::project_back(const cv::Point_<double>&) const {
  refuse_inverse();
}

cv::Point3_<double> DistortCamera::get_sight_vector(const cv::Point_<double>&) const {
  refuse_inverse();
}

bool DistortCamera::save(cv::FileStorage* fs) {
  cv::FileStorage own;
  if (!fs) own.open(name + "_param.yaml", cv::FileStorage::WRITE);
  cv::FileStorage& out = fs ? *fs : own;
  if (!out.isOpened()) return false;
  bool ok = PinHoleCamera::save(&out);
  if (ok) cv::write(out, name + "_D", D);
  if (!fs) own.release();
  return ok;
}

bool DistortCamera::load(cv::FileStorage* fs) {
  cv::FileStorage own;
  if (!fs) sl3d::open_yaml_storage(name + "_param.yaml", own);
  cv::FileStorage& in = fs ? *fs : own;
  if (!in.isOpened()) return false;
  // Null stays null: the base opens the file itself and may rename us.
  bool ok = PinHoleCamera::load(fs);
  if (ok) {
    cv::Mat d;
    in[name + "_D"] >> d;
    D = d;
  }
  if (!fs) own.release();
  return ok;
}

bool DistortCamera::solvePnPRansac(cv::Mat& rvec, cv::Mat& tvec,
                                   std::vector<cv::Point_<float>>& image_points,
                                   std::vector<cv::Point3_<float>>& object_points) {
  return cv::solvePnPRansac(object_points, image_points, K, D, rvec, tvec, false, 100, 8.0f, 0.99,
                            cv::noArray(), 0);
}

bool DistortCamera::solvePnP(cv::Mat& rvec, cv::Mat& tvec,
                             std::vector<cv::Point_<float>>& image_points,
                             std::vector<cv::Point3_<float>>& object_points) {
  return cv::solvePnP(object_points, image_points, K, D, rvec, tvec, false, 0);
}
