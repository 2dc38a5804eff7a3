// `sl3d scan`: captures on disk -> point cloud (and depth preview) on disk.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <regex>

#include <sl3d/pointcloud/threads.h>

#include "commands.h"
#include "args.h"
#include "calib.h"
#include "depth.h"
#include "errors.h"
#include "io.h"
#include "measure.h"
#include "params.h"
#include "scan_exports.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "scan";

struct ScanRequest {
  Method method = Method::kPhaseShift;
  std::string images_dir;
  std::string q_file;      // rectified captures, or
  std::string calib_dir;   // raw captures and their calibration
  int mode = 0;            // genPC mode, with calib_dir only
  std::string ply_file;
  ScanExports exports;      // preview and float images, when asked for
  std::string params_file;  // empty: defaults
  int threads = 0;          // 0: every hardware thread
  bool filter = true;       // sl3d::filter_disparities after exec
};

ScanRequest parse_scan_args(const std::vector<std::string>& args) {
  std::vector<OptionDef> options = {{"--method", true},
                                    {"--images", true},
                                    {"--q", true},
                                    {"--calib", true},
                                    {"--mode", true},
                                    {"--output", true, "-o"},
                                    {"--params", true},
                                    {"--threads", true},
                                    {"--no-filter", false}};
  for (const OptionDef& option : scan_export_options()) options.push_back(option);
  const ParsedArgs parsed = parse_options(kCommand, args, options);
  ScanRequest request;
  request.method = parse_method(kCommand, parsed.require("--method"));
  request.images_dir = parsed.require("--images");
  if (parsed.has("--q") == parsed.has("--calib")) {
    throw usage_error(kCommand, "give exactly one of --q (rectified captures) and --calib "
                                "(raw captures)");
  }
  if (parsed.has("--q")) {
    request.q_file = parsed.require("--q");
    // Modes 1 and 2 need the stereo model; with Q alone they would silently
    // fall back to mode 0.
    if (parsed.has("--mode")) throw usage_error(kCommand, "--mode needs --calib");
  } else {
    request.calib_dir = parsed.require("--calib");
    request.mode = parsed.get_int("--mode", 0, 0, 2);
  }
  request.ply_file = parsed.require("--output");
  request.exports = parse_scan_exports(kCommand, parsed, request.ply_file);
  request.params_file = parsed.get("--params", "");
  request.threads = parsed.get_int("--threads", 0, 0, 1024);
  request.filter = !parsed.has("--no-filter");
  if (parsed.has("--params") && request.params_file.empty()) {
    throw usage_error(kCommand, "--params needs a non-empty value");
  }
  return request;
}

std::string frame_name(int camera, int index) {
  char name[32];
  std::snprintf(name, sizeof name, "cam%d_%02d.png", camera, index);
  return name;
}

std::string textured_name(int camera) { return "cam" + std::to_string(camera) + ".png"; }

// A phase-shift frame numbered past the last index is most likely a capture
// taken with another pattern sequence; measuring without it would be wrong.
void refuse_extra_frames(const std::string& dir) {
  static const std::regex kFramePattern("cam[01]_([0-9]+)\\.png");
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    std::smatch match;
    const std::string name = entry.path().filename().string();
    if (std::regex_match(name, match, kFramePattern) &&
        (match[1].length() > 2 || std::stoi(match[1].str()) >= kPhaseShiftFrames)) {
      throw file_error(entry.path().string(), "unexpected frame: phaseshift uses indices 00..12");
    }
  }
}

void check_same_size(const cv::Mat& image, const std::string& path, const cv::Mat& first,
                     const std::string& first_path) {
  if (image.size() == first.size()) return;
  throw file_error(path, "size " + std::to_string(image.cols) + "x" + std::to_string(image.rows) +
                             " differs from " + first_path + " (" + std::to_string(first.cols) +
                             "x" + std::to_string(first.rows) + ")");
}

void check_multiple_of_8(const cv::Mat& image, const std::string& path) {
  if (image.cols % 8 == 0 && image.rows % 8 == 0) return;
  throw file_error(path, "size " + std::to_string(image.cols) + "x" + std::to_string(image.rows) +
                             ": phaseshift needs width and height that are multiples of 8");
}

// All frames are read first (on `threads` threads), then checked in file
// order, so the problem reported is the first one a file-by-file read would
// meet.
Capture load_capture(Method method, const std::string& dir, int threads) {
  check_input_directory(dir);
  if (method == Method::kPhaseShift) refuse_extra_frames(dir);
  const int frames = method == Method::kPhaseShift ? kPhaseShiftFrames : 1;
  std::vector<std::string> paths;
  for (int camera = 0; camera < 2; ++camera) {
    for (int index = 0; index < frames; ++index) {
      const std::string name =
          method == Method::kPhaseShift ? frame_name(camera, index) : textured_name(camera);
      paths.push_back((fs::path(dir) / name).string());
    }
  }
  std::vector<std::exception_ptr> errors;
  const std::vector<cv::Mat> images = read_grey_pngs(paths, threads, errors);
  Capture capture;
  capture.consumable = true;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (errors[i]) std::rethrow_exception(errors[i]);
    if (i == 0 && method == Method::kPhaseShift) check_multiple_of_8(images[0], paths[0]);
    check_same_size(images[i], paths[i], images[0], paths[0]);
    capture.frames[i / frames].push_back(images[i]);
  }
  return capture;
}

// The captures must be the size the calibration was made for; a directory
// whose YAML files state no size is checked when it loads.
void check_calibration_size(const std::string& calib_dir, const Capture& capture,
                            const std::string& images_dir) {
  const StatedSize stated = stated_image_size(calib_dir);
  if (pixel_count(stated.size) == 0 || stated.size == capture.size()) return;
  throw file_error(images_dir, "captures are " + size_text(capture.size()) +
                                   ", the calibration in " + calib_dir + " is for " +
                                   size_text(stated.size) + " images (" + stated.source + ")");
}

CameraSetup camera_setup(const ScanRequest& request) {
  CameraSetup setup;
  if (request.calib_dir.empty()) {
    setup.q = read_q_matrix(request.q_file);
  } else {
    check_input_directory(request.calib_dir);
    setup.calib_dir = request.calib_dir;
    setup.modes = {request.mode};
  }
  setup.filter = request.filter;
  return setup;
}

// A scan that measured nothing, or points that are not finite, is no point
// cloud; writing it would pass it off as one.
void check_points(const ScanRequest& request, const Measurement& m) {
  if (m.points.empty()) {
    throw file_error(request.images_dir, std::string(method_name(request.method)) +
                                             " measured no point; nothing written");
  }
  const auto finite = [](const PointCloudElement& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
  };
  const std::size_t bad = static_cast<std::size_t>(
      std::count_if(m.points.begin(), m.points.end(), [&](const auto& p) { return !finite(p); }));
  if (bad == 0) return;
  const std::string source = request.calib_dir.empty() ? request.q_file : request.calib_dir;
  throw file_error(source, "the calibration gives " + std::to_string(bad) + " of " +
                               std::to_string(m.points.size()) +
                               " points non-finite coordinates; nothing written");
}

void print_summary(const ScanRequest& request, const Measurement& m, double read_ms,
                   double write_ms) {
  std::printf("%s: %zu points, coverage %.1f%% of %dx%d pixels", method_name(request.method),
              m.points.size(), coverage_percent(m), m.width, m.height);
  if (!request.calib_dir.empty()) std::printf(", mode %d", m.mode);
  std::printf("\n");
  if (request.filter) {
    const DisparityFilterReport& f = m.filtered;
    std::printf("filter: removed %d of %d disparities (%.2f%% of those kept): %d decode-rejected, "
                "%d unfit integer matches, %d at steps and borders, %d in small patches; %d "
                "integer matches refitted\n",
                f.removed(), m.records, f.kept > 0 ? 100.0 * f.removed() / f.kept : 0.0,
                f.decode_rejected, f.integer_unfit, f.neighbour_step, f.small_patch,
                f.integer_refitted);
  }
  std::printf("time: ");
  if (!request.calib_dir.empty()) {
    std::printf("calibration %.1f ms, rectify %.1f ms, ", m.calib_ms, m.rectify_ms);
  }
  std::printf("intake %.1f ms, exec %.1f ms, ", read_ms + m.intake_ms, m.exec_ms);
  if (request.filter) std::printf("filter %.1f ms, ", m.filter_ms);
  std::printf("genPC %.1f ms, write %.1f ms\n", m.genpc_ms, write_ms);
  std::printf("wrote %s", request.ply_file.c_str());
  for (const std::string& path : request.exports.paths()) std::printf(", %s", path.c_str());
  std::printf("\n");
}

}  // namespace

int run_scan(const std::vector<std::string>& args) {
  const ScanRequest request = parse_scan_args(args);
  check_output_path(request.ply_file);
  for (const std::string& path : request.exports.paths()) check_output_path(path);

  MethodParams params;
  if (!request.params_file.empty()) load_params_file(request.params_file, request.method, params);
  const CameraSetup setup = camera_setup(request);

  // The library starts no threads unless told; the tool, measuring once and
  // exiting, uses every core unless --threads says otherwise.
  set_num_threads(request.threads);
  Stopwatch read;
  const Capture capture = load_capture(request.method, request.images_dir, num_threads());
  const double read_ms = read.elapsed_ms();
  if (!setup.calib_dir.empty()) {
    check_calibration_size(setup.calib_dir, capture, request.images_dir);
  }

  const Measurement m = measure(request.method, capture, setup, params).front();
  check_points(request, m);

  Stopwatch write;
  std::vector<PendingFile> outputs;
  outputs.reserve(4);
  outputs.emplace_back(request.ply_file);
  write_point_cloud(outputs.back(), m);
  add_scan_exports(request.exports, m, outputs);
  commit_all(outputs);
  print_summary(request, m, read_ms, write.elapsed_ms());
  return 0;
}

}  // namespace sl3d
