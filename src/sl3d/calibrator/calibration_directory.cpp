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

// The refreshed pair, named "cam0" and "cam1".
struct DirectoryPair {
  DistortCamera cams[2];
  explicit DirectoryPair(const DistortCamera* in)
      : cams{refreshed_copy(in[0], "cam0"), refreshed_copy(in[1], "cam1")} {}
};

bool save_camera_files(DirectoryPair& pair, const std::string& dir) {
  for (DistortCamera& cam : pair.cams) {
    cv::FileStorage fs(dir + "/" + cam.name + "_param.yaml", cv::FileStorage::WRITE);
    if (!fs.isOpened() || !cam.save(&fs)) return false;
  }
  return true;
}

}  // namespace

bool store_camera_files(const DistortCamera* cams, const std::string& dir) {
  DirectoryPair pair(cams);
  return save_camera_files(pair, dir);
}

bool store_calibration_directory(const DistortCamera* cams, const std::string& dir) {
  DirectoryPair cameras(cams);
  if (!save_camera_files(cameras, dir)) return false;
  StereoCamera pair(cameras.cams, -1.0, 0, cv::Size(0, 0), cv::Scalar(0, 0, 0, 0),
                    cv::Scalar(0, 0, 0, 0));
  return store_StereoCamera_to_Hmats(&pair, dir + "/hmat0.dat", dir + "/hmat1.dat",
                                     dir + "/rect.param") &&
         pair.save(dir);
}

}  // namespace sl3d
