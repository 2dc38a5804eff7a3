#include <sl3d/calibrator/calibration_directory.h>

#include <memory>

#include <sl3d/camera/stereo_camera.h>

namespace sl3d {

namespace {

// A copy named for the directory whose pose members all agree with its
// projection, so that a reader gets the same camera from any key.
DistortCamera refreshed_copy(const DistortCamera& cam, const std::string& name) {
  DistortCamera out(cam);
  out.name = name;
  refresh_pose(out);
  return out;
}

// The refreshed pair, named "cam0" and "cam1".
struct DirectoryPair {
  DistortCamera cams[2];
  explicit DirectoryPair(const DistortCamera* in)
      : cams{refreshed_copy(in[0], "cam0"), refreshed_copy(in[1], "cam1")} {}
};

std::string camera_file(const std::string& dir, const std::string& name) {
  return dir + "/" + name + "_param.yaml";
}

// cv::FileStorage does not report a failed write (a full disk shows only
// as a short file), so every camera file is read back.
bool save_camera_files(DirectoryPair& pair, const std::string& dir) {
  for (DistortCamera& cam : pair.cams) {
    cv::FileStorage fs(camera_file(dir, cam.name), cv::FileStorage::WRITE);
    if (!fs.isOpened() || !cam.save(&fs)) return false;
    fs.release();
  }
  std::unique_ptr<StereoCamera> check(create_StereoCamera(
      {camera_file(dir, "cam0"), camera_file(dir, "cam1")}, cv::Size(0, 0), -1.0, 0,
      cv::Scalar(), cv::Scalar()));
  return check != nullptr;
}

// The binary form's table write and the pair's YAML file are not checked
// by their writers; both forms are loaded back.
bool written_forms_load(const std::string& dir, cv::Size size) {
  std::unique_ptr<StereoCamera> binary(create_StereoCamera_from_Hmats(
      dir + "/hmat0.dat", dir + "/hmat1.dat", dir + "/rect.param", size, cv::Scalar(),
      cv::Scalar()));
  StereoCamera yaml(cv::Size(0, 0));
  return binary != nullptr && yaml.load(dir) && !yaml.cameras[0].map1.empty() &&
         !yaml.cameras[1].map2.empty();
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
         pair.save(dir) && written_forms_load(dir, pair.oldcamSize);
}

}  // namespace sl3d
