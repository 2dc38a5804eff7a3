// A phase-shift measurement through the installed library: the captures of
// `sl3d synth --rectified` in, the PLY file of `sl3d scan` out.
//
// usage: scan CAPTURE_DIR Q_FILE OUT.ply

#include <cstdio>
#include <cstring>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/verbose.h>
#include <sl3d/psft/psft.h>
#include <sl3d/version.h>

#include "all_sl3d_headers.h"

static_assert(SL3D_VERSION_MAJOR == 0 && SL3D_VERSION_MINOR == 2, "sl3d 0.2 headers");

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: scan CAPTURE_DIR Q_FILE OUT.ply\n");
    return 2;
  }
  if (std::strcmp(sl3d::version(), SL3D_VERSION_STRING) != 0) {
    std::fprintf(stderr, "headers %s, library %s\n", SL3D_VERSION_STRING, sl3d::version());
    return 1;
  }
  cv::Mat q;
  cv::FileStorage(argv[2], cv::FileStorage::READ)["Q"] >> q;
  q.convertTo(q, CV_64F);
  cv::Mat frames[2][13];
  for (int camera = 0; camera < 2; ++camera) {
    for (int index = 0; index < 13; ++index) {
      char name[32];
      std::snprintf(name, sizeof name, "/cam%d_%02d.png", camera, index);
      frames[camera][index] = cv::imread(argv[1] + std::string(name), cv::IMREAD_UNCHANGED);
      if (frames[camera][index].type() != CV_8UC1) return 1;
    }
  }
  const cv::Size size = frames[0][0].size();

  iPointCloudGenerator* gen = createPointCloudGenerator(0);
  sl3d::set_verbose(gen, false);
  if (!gen->init(size.width, size.height) || q.total() != 16 ||
      !gen->set_camera_params(q.ptr<double>())) {
    return 1;
  }
  PhaseShiftParams params;
  gen->setparams(&params);
  for (int camera = 0; camera < 2; ++camera) {
    for (int index = 0; index < 13; ++index) {
      cv::Mat& frame = frames[camera][index];
      gen->setpict(frame.data, frame.step[0], camera, index);
    }
  }
  gen->exec();
  const int count = gen->genPC(0);
  writePLY(argv[3], gen->get_pointcloud_ptr(), count,
           reinterpret_cast<const unsigned*>(gen->get_rangegrid()), size.width, size.height);
  std::printf("%d points\n", count);
  gen->destroy();
  return count > 0 ? 0 : 1;
}
