#ifndef SL3D_CLI_CALIB_H_
#define SL3D_CLI_CALIB_H_

// Calibration directories, checked file by file with the library's own
// readers, so that the tool can say which file keeps a directory from
// loading instead of passing on a bare false.
//
// The generators try two routes, in this order: the binary form
// (hmat0.dat, hmat1.dat, rect.param) and the camera files (cam0_param.yaml,
// cam1_param.yaml). The pair's YAML form (stereo_param.yaml, rect0.map,
// rect1.map) is checked and reported too, but the generators do not read it.

#include <sl3d/camera/stereo_camera.h>

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace sl3d {

std::string size_text(cv::Size size);  // "1280x1024"

// width * height without int overflow; 0 unless both are positive.
std::int64_t pixel_count(cv::Size size);

struct CalibProblem {
  std::string path;  // the file (or the directory) at fault
  std::string problem;
};

enum class FormState { kAbsent, kBroken, kLoads };

struct CalibForm {
  FormState state = FormState::kAbsent;
  std::shared_ptr<StereoCamera> pair;  // set when the form loads
};

struct CalibReport {
  std::string dir;
  cv::Size image_size;      // raw capture size; 0x0 when unknown
  std::string size_source;  // the file that states it, or "--size"
  CalibForm binary;
  CalibForm cameras;
  CalibForm pair_yaml;
  std::vector<DistortCamera> raw_cameras;  // from the camera files
  std::vector<CalibProblem> problems;      // in the order found

  // The stereo model a generator would load, or null.
  const StereoCamera* usable() const;
  const char* usable_form_name() const;
};

// The image size the directory's YAML files state ("cam0_size" of
// cam0_param.yaml, else "oldcamSize" of stereo_param.yaml); 0x0 and an
// empty source when none does.
struct StatedSize {
  cv::Size size;
  std::string source;
};
StatedSize stated_image_size(const std::string& dir);

// Checks every file of `dir`. `size` is the raw image size to check
// against, named `size_source` in messages; 0x0 takes the stated size.
// Never throws for corrupt files.
CalibReport inspect_calibration(const std::string& dir, cv::Size size,
                                const std::string& size_source = "--size");

// One line for a directory that set_camera_params() did not load:
// "DIR: no usable calibration: FILE: PROBLEM; ...".
std::string calibration_failure(const std::string& dir, cv::Size size);

}  // namespace sl3d

#endif  // SL3D_CLI_CALIB_H_
