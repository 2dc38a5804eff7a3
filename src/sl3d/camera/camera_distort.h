#ifndef SL3D_CAMERA_CAMERA_DISTORT_H_
#define SL3D_CAMERA_CAMERA_DISTORT_H_

// A real camera: a PinHoleCamera plus lens distortion coefficients D in
// OpenCV's order (k1, k2, p1, p2[, k3[, k4, k5, k6 ...]]).
//
// Use it for the result of intrinsic calibration and as the source camera of
// undistortion/rectification maps (UndistortCamera::initMap). It projects
// forwards through the distortion model; the inverse projection is refused,
// since a distorted pixel has no closed-form ray.

#include <opencv2/core.hpp>

#include <sl3d/camera/camera_pinhole.h>
#include <sl3d/export.h>

class SL3D_EXPORT DistortCamera : public PinHoleCamera {
 public:
  // As PinHoleCamera; D starts empty.
  DistortCamera(cv::Size_<int> size, std::string name);
  // Deep copies, D included.
  DistortCamera(const DistortCamera& other);
  DistortCamera& operator=(const DistortCamera& other);
  ~DistortCamera() override;

  // Pixel of world point X through R, T, K and D (cv::projectPoints). X is
  // narrowed to single precision first, so the result is float-accurate.
  cv::Point_<double> project_forw(const cv::Point3_<double>& X) const;

  // Always throw std::logic_error
  // ("Invert projection is not available in DistortCamera.").
  cv::Point3_<double> project_back(const cv::Point_<double>& p) const;
  cv::Point3_<double> get_sight_vector(const cv::Point_<double>& p) const;

  // The pinhole keys plus name + "_D". save() hands the base its storage, so
  // even its own file "name_param.yaml" carries no "CameraName" key, while
  // load(nullptr) lets the base open the file again and read "CameraName":
  // an own file written by save(nullptr) therefore does not load back (the
  // empty name finds no "_P" and setPPM raises cv::Exception). Callers pass a
  // shared storage. save returns open && base ok; load the base result.
  bool save(cv::FileStorage* fs) override;
  bool load(cv::FileStorage* fs) override;

  // As PinHoleCamera's, with D as the distortion coefficients.
  bool solvePnPRansac(cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point_<float>>& image_points,
                      std::vector<cv::Point3_<float>>& object_points) override;
  bool solvePnP(cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point_<float>>& image_points,
                std::vector<cv::Point3_<float>>& object_points) override;

  cv::Mat_<double> D;  // distortion coefficients, length as calibrated
};

#endif  // SL3D_CAMERA_CAMERA_DISTORT_H_
