// `sl3d demo`: the whole life of a sensor on the virtual sensor, with the
// files a user of a real sensor makes. The board is made as `sl3d board`
// makes it and its real cameras photograph that very bitmap; the pair is
// calibrated from those images alone and the calibration compared with the
// true cameras. The projector throws the frames `sl3d patterns` wrote; raw
// captures of the scene are rectified through the new calibration,
// measured, and every point compared with the scene's true surfaces, next
// to the same measurement through the true calibration.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "args.h"
#include "board.h"
#include "board_params.h"
#include "calibrate.h"
#include "commands.h"
#include "depth.h"
#include "errors.h"
#include "io.h"
#include "measure.h"
#include "patterns.h"
#include "synth_boards.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "demo";
const char kDefaultOutDir[] = "out/demo";
const char kCalibSubdir[] = "calib";
const char kBoardsSubdir[] = "boards";
const char kPrintSubdir[] = "board";
const char kPatternsSubdir[] = "patterns";
const BoardFamily kDemoBoard = BoardFamily::kPellux;
// The printed board: 11 x 8 circles 30 mm apart (345 x 255 mm), about half
// the view at 800 mm.
constexpr int kBoardCols = 11;
constexpr int kBoardRows = 8;
constexpr double kBoardSpacingMm = 30.0;
// The projector: a common 1920 x 1080 one, period 15.
constexpr int kProjectorWidth = 1920;
constexpr int kProjectorHeight = 1080;

struct RenderedCapture {
  Capture capture;
  double render_ms = 0.0;
};

// Renders both cameras' frames with `frames_of` and times it.
template <typename FramesOf>
RenderedCapture render_capture(const char* what, FramesOf frames_of) {
  progress(std::string("rendering ") + what);
  Stopwatch watch;
  RenderedCapture rendered;
  for (int camera = 0; camera < 2; ++camera) rendered.capture.frames[camera] = frames_of(camera);
  rendered.render_ms = watch.elapsed_ms();
  return rendered;
}

RenderedCapture render_phase_shift(const VirtualSensor& sensor,
                                   const std::array<SimCamera, 2>& cameras) {
  return render_capture("raw phase-shift frames", [&](int camera) {
    return sensor.render_phase_shift(cameras[camera]);
  });
}

RenderedCapture render_textured_pair(const VirtualSensor& sensor,
                                     const std::array<SimCamera, 2>& cameras) {
  return render_capture("the raw textured pair", [&](int camera) {
    return std::vector<cv::Mat>{sensor.render_textured(cameras[camera])};
  });
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in) throw file_error(path, "cannot read");
  return text.str();
}

// The board as `sl3d board` makes it, read back from its files: the bitmap
// the cameras will see and the key file calibration reads.
struct PrintedBoard {
  BoardPrint print;
  cv::Mat png;
  std::string key_file;
};

PrintedBoard print_board(const std::string& out_dir) {
  PrintedBoard board;
  make_board_design(kDemoBoard, kBoardCols, kBoardRows, kBoardSpacingMm, board.print.design);
  const std::string dir = (fs::path(out_dir) / kPrintSubdir).string();
  write_board_print(dir, board.print);
  board.png = read_grey_png((fs::path(dir) / "board.png").string());
  board.key_file = (fs::path(dir) / "board_params.yaml").string();
  return board;
}

// The printed bitmap placed on the board's layout: the layout's origin is
// the centre of circle (0, 0), a margin in from the drawing's corner.
BoardTexture texture_of(const PrintedBoard& board) {
  const BoardDesign& d = board.print.design;
  const double ppmm = pixels_per_mm(board.print.dpi);
  const cv::Point2d corner = board_raster_offset(d, ppmm, board.print.page);
  return BoardTexture(board.png, ppmm, corner + cv::Point2d(d.margin, d.margin) * ppmm);
}

// Renders and writes the board views of the printed board, calibrates from
// the written images as `sl3d calibrate` does, and writes the calibration
// directory. Returns the calibrated cameras and the directory of the true
// calibration.
struct DemoCalibration {
  CalibrationResult result;
  std::string dir;
  std::string true_dir;
  double render_ms = 0.0;
  double calibrate_ms = 0.0;
};

DemoCalibration calibrate_from_boards(const std::string& out_dir, const SimRig& rig,
                                      const PrintedBoard& printed) {
  Stopwatch watch;
  BoardImaging imaging;
  imaging.noise_sigma = 1.0;
  imaging.blur_sigma_px = 0.5;
  const BoardRecords records = read_board_params(printed.key_file);
  SynthBoard board = synth_board(printed.print.design, records.marker.min_radius);
  board.params_text = read_text(printed.key_file);
  const BoardTexture texture = texture_of(printed);
  const StereoBoardSet set = render_stereo_boards(board, rig.width, rig.height, imaging, &texture);
  const std::string boards_dir = (fs::path(out_dir) / kBoardsSubdir).string();
  const std::array<std::vector<std::string>, 2> paths = write_stereo_boards(set, boards_dir);
  DemoCalibration calibration;
  calibration.render_ms = watch.elapsed_ms();

  watch = Stopwatch();
  CalibrationJob job;
  job.family = kDemoBoard;
  job.records = records;
  for (int side = 0; side < 2; ++side) {
    for (std::size_t view = 0; view < paths[side].size(); ++view) {
      job.images[side].push_back({paths[side][view], set.views[view].images[side].image});
    }
  }
  std::printf("calibration from %zu views per camera of the printed board %s (%s, %d x %d "
              "circles %.0f mm apart, seen at %dx%d), as 'sl3d calibrate' does it:\n",
              set.views.size(), (fs::path(out_dir) / kPrintSubdir / "board.png").string().c_str(),
              family_name(kDemoBoard), kBoardCols, kBoardRows, kBoardSpacingMm, rig.width,
              rig.height);
  calibration.result = calibrate_pair(job);
  calibration.dir = (fs::path(out_dir) / kCalibSubdir).string();
  write_calibration_directory(calibration.result, calibration.dir);
  calibration.true_dir = (fs::path(boards_dir) / "true_calib").string();
  calibration.calibrate_ms = watch.elapsed_ms();
  return calibration;
}

// The virtual sensor with a 1920 x 1080 projector throwing the frames
// `sl3d patterns` wrote, read back from their PNG files.
VirtualSensor sensor_with_written_patterns(const std::string& out_dir) {
  PhaseShiftPatternLayout layout;
  phase_shift_pattern_layout(kProjectorWidth, kProjectorHeight, 0, layout);
  const std::string dir = (fs::path(out_dir) / kPatternsSubdir).string();
  write_phase_shift_patterns(dir, layout);
  SimRig rig;
  rig.projector_width = layout.width;
  rig.projector_height = layout.height;
  rig.projector_period_px = layout.period;
  return VirtualSensor(rig, SimScene::default_scene(), read_phase_shift_patterns(dir));
}

void print_calibration_error(const DemoCalibration& calibration,
                             const std::array<SimCamera, 2>& cameras) {
  const PairCalibrationError e = calibration_error(calibration.result.cams.data(), cameras);
  std::printf("calibration against the true cameras (render %.0f ms, recognise + calibrate + "
              "write %.0f ms):\n",
              calibration.render_ms, calibration.calibrate_ms);
  for (int c = 0; c < 2; ++c) {
    const CameraCalibrationError& ec = e.cameras[c];
    std::printf("  cam%d: focal length error %+.3f / %+.3f px of %.1f, principal point error "
                "%+.3f / %+.3f px; lens and intrinsics together move pixels by RMS %.3f, at "
                "most %.3f px\n",
                c, ec.fx, ec.fy, cameras[c].K(0, 0), ec.cx, ec.cy, ec.pixel_rms, ec.pixel_max);
  }
  std::printf("  baseline error %+.4f mm, rotation error %.4f deg\n", e.baseline,
              e.rotation_deg);
}

// Points come out in the left rectified camera's frame; the YAML form keeps
// the rotation from camera 0 into it, which the binary form lacks.
struct WorldFromRect {
  cv::Matx33d rotation;
  cv::Vec3d offset;
  cv::Vec3d operator()(const PointCloudElement& p) const {
    return rotation * cv::Vec3d(p.x, p.y, p.z) + offset;
  }
};

WorldFromRect world_from_rect(const std::string& calib_dir,
                              const std::array<SimCamera, 2>& cameras) {
  StereoCamera pair(cv::Size(0, 0));
  if (!pair.load(calib_dir) || pair.cam0_R2.rows != 3 || pair.cam0_R2.cols != 3) {
    throw file_error(calib_dir, "stereo_param.yaml holds no rectifying rotation \"cam0_R2\"");
  }
  const cv::Matx33d rect_from_cam0(cv::Mat(pair.cam0_R2));
  return {cam0_from_world(cameras).t() * rect_from_cam0.t(), cameras[0].center()};
}

ErrorStats surface_error(const Measurement& m, const VirtualSensor& sensor,
                         const WorldFromRect& to_world) {
  std::vector<double> distances;
  distances.reserve(m.points.size());
  for (const PointCloudElement& p : m.points) {
    distances.push_back(sensor.distance_to_scene(to_world(p)));
  }
  return error_stats(distances);
}

// Writes DIR/<method>.ply, DIR/<method>_depth.tiff (float depth, NaN where
// no point) and DIR/<method>_depth.png (preview over `range`, with its
// colour bar); returns the time taken.
double write_outputs(const std::string& dir, Method method, const Measurement& m,
                     const DepthRange& range) {
  Stopwatch watch;
  const std::string base = (fs::path(dir) / method_name(method)).string();
  const cv::Mat depth = depth_map(m);
  std::vector<PendingFile> outputs;
  outputs.reserve(3);
  outputs.emplace_back(base + ".ply");
  write_point_cloud(outputs.back(), m);
  outputs.emplace_back(base + "_depth.tiff");
  outputs.back().write(encode_float_tiff(depth, outputs.back().final_path()));
  outputs.emplace_back(base + "_depth.png");
  outputs.back().write(encode_png(depth_preview(depth, range), outputs.back().final_path()));
  commit_all(outputs);
  return watch.elapsed_ms();
}

void print_header(Method method, const Measurement& m, double render_ms) {
  std::printf("%s (raw %dx%d, rectified through the calibration)\n", method_name(method),
              m.width, m.height);
  std::printf("  time: render %.0f ms, calibration %.1f ms, rectify %.1f ms, intake %.1f ms, "
              "exec %.1f ms\n",
              render_ms, m.calib_ms, m.rectify_ms, m.intake_ms, m.exec_ms);
}

void print_mode(const Measurement& m, const ErrorStats& error) {
  std::printf("  mode %d: %zu points, coverage %.1f%%, distance to the true surface: RMS %.3f mm, "
              "p95 %.3f mm, %d above 10 mm; genPC %.1f ms\n",
              m.mode, m.points.size(), coverage_percent(m), error.rms_mm, error.p95_abs_mm,
              error.gross, m.genpc_ms);
}

std::vector<Measurement> measure_through(Method method, const RenderedCapture& rendered,
                                         const std::vector<int>& modes,
                                         const std::string& calib_dir) {
  progress(std::string("measuring with ") + method_name(method));
  CameraSetup setup;
  setup.calib_dir = calib_dir;
  setup.modes = modes;
  return measure(method, rendered.capture, setup, MethodParams());
}

// Measures, reports and writes the outputs of mode `modes[0]`; their
// preview spans `range`, or when that is empty the depths measured, which
// are returned.
DepthRange run_method(Method method, const RenderedCapture& rendered,
                      const std::vector<int>& modes, const std::string& calib_dir,
                      const VirtualSensor& sensor, const WorldFromRect& to_world,
                      const std::string& out_dir, DepthRange range) {
  const std::vector<Measurement> results = measure_through(method, rendered, modes, calib_dir);
  print_header(method, results.front(), rendered.render_ms);
  for (const Measurement& m : results) print_mode(m, surface_error(m, sensor, to_world));
  if (range.empty()) range = percentile_range(depth_map(results.front()));
  std::printf("  write %.1f ms (mode %d)\n", write_outputs(out_dir, method, results.front(), range),
              results.front().mode);
  return range;
}

// The same phase-shift capture through the true cameras' calibration: what
// a perfect calibration would have given.
void compare_with_true_calibration(const RenderedCapture& rendered, const std::string& true_dir,
                                   const VirtualSensor& sensor,
                                   const std::array<SimCamera, 2>& cameras) {
  const std::vector<Measurement> results =
      measure_through(Method::kPhaseShift, rendered, {0}, true_dir);
  std::printf("%s through the true calibration, for comparison\n",
              method_name(Method::kPhaseShift));
  print_mode(results.front(), surface_error(results.front(), sensor,
                                            world_from_rect(true_dir, cameras)));
}

}  // namespace

int run_demo(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_options(kCommand, args, {{"--out", true}});
  const std::string out_dir = parsed.get("--out", kDefaultOutDir);
  if (out_dir.empty()) throw usage_error(kCommand, "--out needs a non-empty value");
  prepare_output_directory(out_dir);

  const PrintedBoard printed = print_board(out_dir);
  const VirtualSensor sensor = sensor_with_written_patterns(out_dir);
  const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor.rig());
  const DemoCalibration calibration = calibrate_from_boards(out_dir, sensor.rig(), printed);
  print_calibration_error(calibration, cameras);

  const WorldFromRect to_world = world_from_rect(calibration.dir, cameras);
  const RenderedCapture phase_shift = render_phase_shift(sensor, cameras);
  // Both previews share the phase-shift result's depth range, so they compare.
  const DepthRange range = run_method(Method::kPhaseShift, phase_shift, {0, 1, 2},
                                      calibration.dir, sensor, to_world, out_dir, DepthRange());
  compare_with_true_calibration(phase_shift, calibration.true_dir, sensor, cameras);
  run_method(Method::kSgbm, render_textured_pair(sensor, cameras), {0}, calibration.dir, sensor,
             to_world, out_dir, range);
  std::printf("outputs in %s: the board to print in %s/, projector frames in %s/, board views "
              "in %s/, calibration in %s/; depth previews span %.0f..%.0f mm\n",
              out_dir.c_str(), kPrintSubdir, kPatternsSubdir, kBoardsSubdir, kCalibSubdir,
              range.near, range.far);
  return 0;
}

}  // namespace sl3d
