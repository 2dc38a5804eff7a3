#include <sl3d/calibrator/calibration_directory.h>

#include <sl3d/camera/stereo_camera.h>

namespace sl3d {

namespace {

// A copy named for the directory whose pose members all agree with its
// projection, so that a reader gets the same camera from any key.
DistortCamera refreshed_copy(const DistortCamera& cam, const std::string& name) {
  DistortCamera out(cam);
  out.name = name;
  out.compose();
  cv::Mat_<double> ppm = out.P(cv::Rect(0, 0, 4, 3)).clone();
  out.setPPM(ppm);
  return out;
}

}  // namespace

bool store_camera_files(const DistortCamera* cams, const std::string& dir) {
  DistortCamera pair_cams[2] = {refreshed_copy(cams[0], "cam0"), refreshed_copy(cams[1], "cam1")};
  for (DistortCamera& cam : pair_cams) {
    cv::FileStorage fs(dir + "/" + cam.name + "_param.yaml", cv::FileStorage::WRITE);
    if (!fs.isOpened() || !cam.save(&fs)) return false;
  }
  return true;
}

bool store_calibration_directory(const DistortCamera* cams, const std::string& dir) {
  if (!store_camera_files(cams, dir)) return false;
  DistortCamera pair_cams[2] = {refreshed_copy(cams[0], "cam0"), refreshed_copy(cams[1], "cam1")};
  StereoCamera pair(pair_cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0, 0, 0, 0),
                    cv::Scalar(0, 0, 0, 0));
  return store_StereoCamera_to_Hmats(&pair, dir + "/hmat0.dat", dir + "/hmat1.dat",
                                     dir + "/rect.param") &&
         pair.save(dir);
}

}  // namespace sl3d
