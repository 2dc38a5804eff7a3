// `sl3d synth`: renders a capture directory that `sl3d scan` can read: raw
// captures of the virtual sensor's real cameras with their calibration
// directory, or with --rectified the ideal rectified pair with its Q; with
// --boards views of a calibration board for `sl3d detect` instead.

#include <cstdio>
#include <filesystem>

#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "args.h"
#include "commands.h"
#include "errors.h"
#include "io.h"
#include "measure.h"
#include "synth_boards.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "synth";
constexpr int kMinSize = 64;
constexpr int kMaxSize = 8192;

struct SynthRequest {
  std::string out_dir;
  SimRig rig;
  SimLight light;
  bool rectified = false;
};

const char kCalibSubdir[] = "calib";

int checked_size(const ParsedArgs& parsed, const std::string& name, int fallback) {
  const int size = parsed.get_int(name, fallback, kMinSize, kMaxSize);
  if (size % 8 != 0) throw usage_error(kCommand, name + " must be a multiple of 8");
  return size;
}

ParsedArgs parse_synth_options(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_options(
      kCommand, args,
      {{"--out", true}, {"--width", true}, {"--height", true}, {"--noise", true}, {"--blur", true},
       {"--rectified", false}, {"--boards", true}, {"--board", true}, {"--views", true}, {"--stereo", false}});
  if (parsed.has("--out") == parsed.has("--boards")) {
    throw usage_error(kCommand, "give exactly one of --out and --boards");
  }
  const char* out_only = "--rectified";
  const char* boards_only[] = {"--board", "--views", "--stereo"};
  if (parsed.has("--boards") && parsed.has(out_only)) {
    throw usage_error(kCommand, "--rectified goes with --out, not --boards");
  }
  for (const char* option : boards_only) {
    if (parsed.has("--out") && parsed.has(option)) {
      throw usage_error(kCommand, std::string(option) + " goes with --boards, not --out");
    }
  }
  return parsed;
}

BoardSynthRequest board_request(const ParsedArgs& parsed) {
  const SimRig rig;
  const SimLight light;
  BoardSynthRequest request;
  request.dir = parsed.require("--boards");
  request.family = parse_board_family(kCommand, parsed.get("--board", "pellux"));
  request.views = parsed.get_int("--views", 0, 1, 100);
  request.width = checked_size(parsed, "--width", rig.width);
  request.height = checked_size(parsed, "--height", rig.height);
  // Board views use the focal length the capture rig has at this size.
  request.focal_px = SimRig::scaled(request.width, request.height).focal_px;
  request.noise = parsed.get_double("--noise", light.noise_sigma, 0.0, 100.0);
  request.blur = parsed.get_double("--blur", light.blur_sigma_px, 0.0, 50.0);
  request.stereo = parsed.has("--stereo");
  return request;
}

SynthRequest capture_request(const ParsedArgs& parsed) {
  SynthRequest request;
  request.out_dir = parsed.require("--out");
  const int width = checked_size(parsed, "--width", request.rig.width);
  const int height = checked_size(parsed, "--height", request.rig.height);
  request.rig = SimRig::scaled(width, height);
  request.light.noise_sigma = parsed.get_double("--noise", request.light.noise_sigma, 0.0, 100.0);
  request.light.blur_sigma_px = parsed.get_double("--blur", request.light.blur_sigma_px, 0.0, 50.0);
  request.rectified = parsed.has("--rectified");
  return request;
}

std::string path_in(const std::string& dir, const std::string& name) {
  return (fs::path(dir) / name).string();
}

void add_png(std::vector<PendingFile>& files, const std::string& path, const cv::Mat& image) {
  files.emplace_back(path);
  files.back().write(encode_png(image, path));
}

// Camera `camera` of the rectified pair, or the real camera of a raw set.
struct CameraView {
  const VirtualSensor& sensor;
  const std::array<SimCamera, 2>* raw;  // null: rectified

  std::vector<cv::Mat> phase_shift(int camera, const SimLight& light) const {
    return raw ? sensor.render_phase_shift((*raw)[camera], light)
               : sensor.render_phase_shift(camera, light);
  }
  cv::Mat textured(int camera, const SimLight& light) const {
    return raw ? sensor.render_textured((*raw)[camera], light)
               : sensor.render_textured(camera, light);
  }
};

void add_phase_shift_frames(std::vector<PendingFile>& files, const SynthRequest& request,
                            const CameraView& view) {
  for (int camera = 0; camera < 2; ++camera) {
    progress("rendering phase-shift frames of camera " + std::to_string(camera));
    const std::vector<cv::Mat> frames = view.phase_shift(camera, request.light);
    for (std::size_t index = 0; index < frames.size(); ++index) {
      char name[32];
      std::snprintf(name, sizeof name, "cam%d_%02zu.png", camera, index);
      add_png(files, path_in(request.out_dir, name), frames[index]);
    }
  }
}

void add_textured_pair(std::vector<PendingFile>& files, const SynthRequest& request,
                       const CameraView& view) {
  progress("rendering the textured pair");
  for (int camera = 0; camera < 2; ++camera) {
    add_png(files, path_in(request.out_dir, "cam" + std::to_string(camera) + ".png"),
            view.textured(camera, request.light));
  }
}

void write_calibration(PendingDirectory& dir, const std::array<SimCamera, 2>& cameras) {
  if (!write_calibration_directory(cameras, dir.temp_path())) {
    throw file_error(dir.final_path(), "cannot write the calibration files");
  }
}

int run_captures(const SynthRequest& request) {
  prepare_output_directory(request.out_dir);

  Stopwatch watch;
  const VirtualSensor sensor(request.rig);
  const std::array<SimCamera, 2> cameras = default_raw_cameras(request.rig);
  const CameraView view{sensor, request.rectified ? nullptr : &cameras};
  // Everything is written under temporary names first and renamed at the
  // end, so an interrupted run leaves no half set behind.
  std::vector<PendingFile> files;
  files.reserve(2 * kPhaseShiftFrames + 3);
  add_phase_shift_frames(files, request, view);
  add_textured_pair(files, request, view);
  const std::size_t captures = files.size();
  if (request.rectified) {
    files.emplace_back(path_in(request.out_dir, "q.yaml"));
    files.back().write(q_matrix_yaml(sensor.ground_truth().q));
    commit_all(files);
  } else {
    PendingDirectory calib(path_in(request.out_dir, kCalibSubdir));
    write_calibration(calib, cameras);
    commit_all(files);
    calib.commit();
  }

  std::printf("wrote %zu %s captures (%dx%d)%s to %s in %.0f ms\n", captures,
              request.rectified ? "rectified" : "raw", request.rig.width, request.rig.height,
              request.rectified ? " and q.yaml" : " and the calibration directory calib/",
              request.out_dir.c_str(), watch.elapsed_ms());
  return 0;
}

}  // namespace

int run_synth(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_synth_options(args);
  if (parsed.has("--boards")) return run_synth_boards(board_request(parsed));
  return run_captures(capture_request(parsed));
}

}  // namespace sl3d
