#include <sl3d/sim/sim_calibration.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibrator/calibration_directory.h>
#include <sl3d/camera/camera_pinhole.h>
#include <sl3d/camera/stereo_camera.h>

namespace sl3d {

cv::Matx33d cam0_from_world(const std::array<SimCamera, 2>& cameras) {
  return cameras[0].cam_from_world_R;
}

void calibrated_pair(const std::array<SimCamera, 2>& cameras, DistortCamera* out) {
  const cv::Matx33d r0 = cameras[0].cam_from_world_R;
  const cv::Vec3d t0 = cameras[0].cam_from_world_t;
  const cv::Matx33d cam1_from_cam0_R = cameras[1].cam_from_world_R * r0.t();
  const cv::Vec3d cam1_from_cam0_t = cameras[1].cam_from_world_t - cam1_from_cam0_R * t0;
  const cv::Matx33d rotations[2] = {cv::Matx33d::eye(), cam1_from_cam0_R};
  const cv::Vec3d translations[2] = {cv::Vec3d(0, 0, 0), cam1_from_cam0_t};
  for (int i = 0; i < 2; ++i) {
    DistortCamera& cam = out[i];
    cam.name = "cam" + std::to_string(i);
    cam.size = cameras[i].size;
    cam.K = cv::Mat_<double>(cv::Mat(cameras[i].K)).clone();
    cam.R = cv::Mat_<double>(cv::Mat(rotations[i])).clone();
    cam.T = cv::Mat(translations[i]).clone();
    cam.D = cv::Mat_<double>(cv::Mat(cameras[i].distortion)).reshape(1, 1).clone();
    refresh_pose(cam);
  }
}

namespace {

// The YAML form of `dir`, with its rectifying rotation; false when it does
// not load or holds none.
bool load_rectified_pair(const std::string& dir, StereoCamera& pair) {
  try {
    return pair.load(dir) && pair.cam0_R2.rows == 3 && pair.cam0_R2.cols == 3;
  } catch (const cv::Exception&) {
    return false;
  }
}

cv::Matx33d world_from_rect_rotation(const StereoCamera& pair,
                                     const std::array<SimCamera, 2>& cameras) {
  const cv::Matx33d rect_from_cam0(pair.cam0_R2);
  return cam0_from_world(cameras).t() * rect_from_cam0.t();
}

}  // namespace

bool world_from_rect(const std::string& dir, const std::array<SimCamera, 2>& cameras,
                     cv::Matx33d& world_from_rect_R, cv::Vec3d& world_from_rect_t) {
  StereoCamera pair(cv::Size(0, 0));
  if (!load_rectified_pair(dir, pair)) return false;
  world_from_rect_R = world_from_rect_rotation(pair, cameras);
  world_from_rect_t = cameras[0].center();
  return true;
}

bool rectified_camera(const std::string& dir, const std::array<SimCamera, 2>& cameras,
                      SimCamera& out) {
  StereoCamera pair(cv::Size(0, 0));
  if (!load_rectified_pair(dir, pair) || pair.cameras[0].K.rows != 3 ||
      pair.cameras[0].K.cols != 3) {
    return false;
  }
  const cv::Matx33d world_from_rect_R = world_from_rect_rotation(pair, cameras);
  SimCamera view;
  view.size = pair.oldcamSize.area() > 0 ? pair.oldcamSize : cameras[0].size;
  view.K = cv::Matx33d(pair.cameras[0].K);
  view.cam_from_world_R = world_from_rect_R.t();
  view.cam_from_world_t = -(view.cam_from_world_R * cameras[0].center());
  out = view;
  return true;
}

bool write_camera_files(const std::array<SimCamera, 2>& cameras, const std::string& dir) {
  DistortCamera cams[2] = {DistortCamera(cv::Size(0, 0), "cam0"),
                           DistortCamera(cv::Size(0, 0), "cam1")};
  calibrated_pair(cameras, cams);
  return store_camera_files(cams, dir);
}

bool write_calibration_directory(const std::array<SimCamera, 2>& cameras, const std::string& dir) {
  DistortCamera cams[2] = {DistortCamera(cv::Size(0, 0), "cam0"),
                           DistortCamera(cv::Size(0, 0), "cam1")};
  calibrated_pair(cameras, cams);
  return store_calibration_directory(cams, dir);
}

namespace {

CameraCalibrationError camera_error(const DistortCamera& calibrated, const SimCamera& truth) {
  CameraCalibrationError e;
  e.fx = calibrated.K(0, 0) - truth.K(0, 0);
  e.fy = calibrated.K(1, 1) - truth.K(1, 1);
  e.cx = calibrated.K(0, 2) - truth.K(0, 2);
  e.cy = calibrated.K(1, 2) - truth.K(1, 2);
  std::vector<cv::Point2d> pixels;
  std::vector<cv::Point3d> rays3;
  for (int v = 0; v < truth.size.height; v += 16) {
    for (int u = 0; u < truth.size.width; u += 16) {
      pixels.emplace_back(u, v);
      const cv::Point2d ray = truth.undistort(pixels.back());
      rays3.emplace_back(ray.x, ray.y, 1.0);
    }
  }
  std::vector<cv::Point2d> projected;
  cv::projectPoints(rays3, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), calibrated.K, calibrated.D,
                    projected);
  double sum = 0.0;
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const double d = cv::norm(projected[i] - pixels[i]);
    sum += d * d;
    e.pixel_max = std::max(e.pixel_max, d);
  }
  e.pixel_rms = pixels.empty() ? 0.0 : std::sqrt(sum / pixels.size());
  return e;
}

}  // namespace

PairCalibrationError calibration_error(const DistortCamera* calibrated,
                                       const std::array<SimCamera, 2>& truth) {
  DistortCamera true_pair[2] = {DistortCamera(cv::Size(0, 0), "cam0"),
                                DistortCamera(cv::Size(0, 0), "cam1")};
  calibrated_pair(truth, true_pair);
  PairCalibrationError e;
  for (int c = 0; c < 2; ++c) e.cameras[c] = camera_error(calibrated[c], truth[c]);
  e.baseline = cv::norm(calibrated[1].T) - cv::norm(true_pair[1].T);
  cv::Vec3d rvec;
  cv::Rodrigues(cv::Mat(calibrated[1].R * true_pair[1].R.t()), rvec);
  e.rotation_deg = cv::norm(rvec) * 180.0 / CV_PI;
  return e;
}

}  // namespace sl3d
