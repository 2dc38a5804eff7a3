// `sl3d calib-info DIR`: what a calibration directory holds and whether the
// generators can load it. The report goes to stdout, one line per problem
// to stderr; the exit status is 0 when the binary form or the camera files
// load.

#include <cstdio>
#include <regex>

#include "args.h"
#include "calib.h"
#include "commands.h"
#include "errors.h"
#include "io.h"

namespace sl3d {

namespace {

const char kCommand[] = "calib-info";

struct CalibInfoRequest {
  std::string dir;
  cv::Size size;  // 0x0: as the directory states it
};

cv::Size parse_size(const std::string& text) {
  static const std::regex kSize("([1-9][0-9]{0,4})x([1-9][0-9]{0,4})");
  std::smatch match;
  if (!std::regex_match(text, match, kSize)) {
    throw usage_error(kCommand, "--size expects WIDTHxHEIGHT, got '" + text + "'");
  }
  return cv::Size(std::stoi(match[1]), std::stoi(match[2]));
}

CalibInfoRequest parse_calib_info_args(const std::vector<std::string>& args) {
  CalibInfoRequest request;
  std::vector<std::string> options;
  for (const std::string& arg : args) {
    if (!arg.empty() && arg[0] != '-' && request.dir.empty() &&
        (options.empty() || options.back() != "--size")) {
      request.dir = arg;
    } else {
      options.push_back(arg);
    }
  }
  const ParsedArgs parsed = parse_options(kCommand, options, {{"--size", true}});
  if (request.dir.empty()) throw usage_error(kCommand, "missing the calibration directory");
  if (parsed.has("--size")) request.size = parse_size(parsed.get("--size", ""));
  return request;
}

const char* state_text(FormState state) {
  switch (state) {
    case FormState::kAbsent:
      return "absent";
    case FormState::kBroken:
      return "present, does not load";
    case FormState::kLoads:
      return "loads";
  }
  return "";
}

void print_forms(const CalibReport& r) {
  std::printf("  binary form (hmat0.dat, hmat1.dat, rect.param):          %s\n",
              state_text(r.binary.state));
  std::printf("  camera files (cam0_param.yaml, cam1_param.yaml):         %s\n",
              state_text(r.cameras.state));
  std::printf("  pair YAML form (stereo_param.yaml, rect0.map, rect1.map): %s%s\n",
              state_text(r.pair_yaml.state),
              r.pair_yaml.state == FormState::kAbsent ? "" : " (not read by scan)");
}

void print_raw_cameras(const CalibReport& r) {
  for (const DistortCamera& cam : r.raw_cameras) {
    std::printf(
        "  %s: %s, fx %.2f fy %.2f px, principal point (%.2f, %.2f), %d distortion "
        "coefficients\n",
        cam.name.c_str(), size_text(cam.size).c_str(), cam.K(0, 0), cam.K(1, 1), cam.K(0, 2),
        cam.K(1, 2), static_cast<int>(cam.D.total()));
  }
}

void print_matrix_rows(const cv::Mat& m) {
  cv::Mat m64;
  m.convertTo(m64, CV_64F);
  for (int row = 0; row < m64.rows; ++row) {
    std::printf("   ");
    for (int col = 0; col < m64.cols; ++col) std::printf(" %14.6f", m64.at<double>(row, col));
    std::printf("\n");
  }
}

void print_map_sizes(const StereoCamera& pair) {
  for (int i = 0; i < 2; ++i) {
    const UndistortCamera& cam = pair.cameras[i];
    if (cam.map1.empty()) {
      std::printf("  camera %d maps: none (images cannot be rectified)\n", i);
    } else {
      std::printf("  camera %d maps: %s, load\n", i, size_text(cam.map1.size()).c_str());
    }
  }
}

void print_model(const CalibReport& r) {
  const StereoCamera* pair = r.usable();
  if (pair == nullptr) return;
  std::printf("scan --calib uses the %s:\n", r.usable_form_name());
  const UndistortCamera& left = pair->cameras[0];
  std::printf("  rectified images %s, focal length %.2f px, baseline %.3f\n",
              size_text(left.size).c_str(), left.K(0, 0), cv::norm(pair->camdis));
  std::printf("  Q:\n");
  print_matrix_rows(pair->Q);
  print_map_sizes(*pair);
}

void print_report(const CalibReport& r) {
  std::printf("calibration directory %s\n", r.dir.c_str());
  if (pixel_count(r.image_size) > 0) {
    std::printf("  image size %s (%s)\n", size_text(r.image_size).c_str(), r.size_source.c_str());
  } else {
    std::printf("  image size unknown (no YAML file states it; give --size WxH)\n");
  }
  print_forms(r);
  print_raw_cameras(r);
  print_model(r);
}

}  // namespace

int run_calib_info(const std::vector<std::string>& args) {
  const CalibInfoRequest request = parse_calib_info_args(args);
  check_input_directory(request.dir);
  const CalibReport report = inspect_calibration(request.dir, request.size);
  print_report(report);
  std::fflush(stdout);
  for (const CalibProblem& p : report.problems) {
    std::fprintf(stderr, "sl3d: %s: %s\n", p.path.c_str(), p.problem.c_str());
  }
  if (report.usable() != nullptr) return 0;
  const bool empty =
      report.binary.state == FormState::kAbsent && report.cameras.state == FormState::kAbsent;
  throw file_error(request.dir, empty ? "holds neither the binary form nor the camera files"
                                      : "no usable calibration");
}

}  // namespace sl3d
