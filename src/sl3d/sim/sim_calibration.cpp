#include <sl3d/sim/sim_calibration.h>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibrator/calibration_directory.h>

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
    // Compose the projection and bring the pose-derived members up to date.
    cam.compose();
    cv::Mat_<double> ppm = cam.P(cv::Rect(0, 0, 4, 3)).clone();
    cam.setPPM(ppm);
  }
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

}  // namespace sl3d
