// `sl3d demo`: the whole life of a sensor on the virtual sensor, with the
// files a user of a real sensor makes. The board is made as `sl3d board`
// makes it and its real cameras photograph that very bitmap; the pair is
// calibrated from those images alone and the calibration compared with the
// true cameras. The projector throws the frames `sl3d patterns` wrote; raw
// captures of the scene are rectified through the new calibration,
// measured, and every point compared with the scene's true surfaces, next
// to the same measurement through the true calibration.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sl3d/calibrator/calibration_flags.h>
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
  const BoardTexture texture = board_texture(
      printed.print.design, printed.png, pixels_per_mm(printed.print.dpi), printed.print.page);
  const StereoBoardSet set = render_stereo_boards(board, rig.width, rig.height, imaging, &texture);
  const std::string boards_dir = (fs::path(out_dir) / kBoardsSubdir).string();
  const std::array<std::vector<std::string>, 2> paths = write_stereo_boards(set, boards_dir);
  DemoCalibration calibration;
  calibration.render_ms = watch.elapsed_ms();

  watch = Stopwatch();
  CalibrationJob job;
  job.family = kDemoBoard;
  job.records = records;
  job.params.flags = recommended_calibration_flags();
  job.circle_radius = records.circle_radius;
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

// Points come out in the left rectified camera's frame of a calibration.
struct WorldFromRect {
  cv::Matx33d rotation;
  cv::Vec3d offset;
  cv::Vec3d operator()(const PointCloudElement& p) const {
    return rotation * cv::Vec3d(p.x, p.y, p.z) + offset;
  }
};

// A calibration directory seen from the truth: how its points go to the
// world and which pixels of its rectified camera 0 can be measured at all.
struct CalibrationView {
  const char* name;  // "recovered" or "true"
  std::string dir;
  WorldFromRect to_world;
  cv::Mat measurable;  // CV_8UC1 on the range grid's pixels, 255 measurable
  int measurable_count = 0;
};

CalibrationView calibration_view(const char* name, const std::string& dir,
                                 const VirtualSensor& sensor,
                                 const std::array<SimCamera, 2>& cameras) {
  CalibrationView view{name, dir, {}, {}, 0};
  SimCamera rectified;
  if (!world_from_rect(dir, cameras, view.to_world.rotation, view.to_world.offset) ||
      !rectified_camera(dir, cameras, rectified)) {
    throw file_error(dir, "stereo_param.yaml holds no rectifying rotation \"cam0_R2\"");
  }
  progress(std::string("finding the measurable pixels through the ") + name + " calibration");
  view.measurable = sensor.measurable_pixels(rectified, cameras[1]);
  view.measurable_count = cv::countNonZero(view.measurable);
  return view;
}

// Distances of a measurement's points to the true surfaces.
ErrorStats surface_error(const Measurement& m, const VirtualSensor& sensor,
                         const WorldFromRect& to_world) {
  std::vector<double> distances;
  distances.reserve(m.points.size());
  for (const PointCloudElement& p : m.points) {
    distances.push_back(sensor.distance_to_scene(to_world(p)));
  }
  return error_stats(distances);
}

// Share of the measurable pixels that got a point, percent.
double measurable_coverage(const Measurement& m, const CalibrationView& view) {
  if (view.measurable_count == 0 || view.measurable.total() != m.range_grid.size()) return 0.0;
  const std::uint8_t* mask = view.measurable.ptr<std::uint8_t>();
  std::size_t covered = 0;
  for (std::size_t i = 0; i < m.range_grid.size(); ++i) covered += mask[i] != 0 && m.range_grid[i] >= 0;
  return 100.0 * static_cast<double>(covered) / view.measurable_count;
}

// One line of the accuracy table.
struct AccuracyRow {
  Method method;
  const char* calibration;
  int mode;
  std::size_t points;
  int removed;
  double coverage;  // of all pixels, percent
  double measurable_coverage;
  ErrorStats error;
};

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

void print_header(Method method, const Measurement& m, double render_ms, const char* calibration) {
  std::printf("%s (raw %dx%d, rectified through the %s calibration)\n", method_name(method),
              m.width, m.height, calibration);
  std::printf("  time: render %.0f ms, calibration %.1f ms, rectify %.1f ms, intake %.1f ms, "
              "exec %.1f ms, filter %.1f ms\n",
              render_ms, m.calib_ms, m.rectify_ms, m.intake_ms, m.exec_ms, m.filter_ms);
  std::printf("  filter: %d of %d disparities removed (%.2f%% of those kept)\n",
              m.filtered.removed(), m.records,
              m.filtered.kept > 0 ? 100.0 * m.filtered.removed() / m.filtered.kept : 0.0);
}

AccuracyRow accuracy_row(Method method, const Measurement& m, const VirtualSensor& sensor,
                         const CalibrationView& view) {
  return {method,           view.name,          m.mode,
          m.points.size(),  m.filtered.removed(), coverage_percent(m),
          measurable_coverage(m, view), surface_error(m, sensor, view.to_world)};
}

void print_mode(const AccuracyRow& row, double genpc_ms) {
  std::printf("  mode %d: %zu points, coverage %.1f%% of all pixels, %.2f%% of the measurable; "
              "distance to the true surfaces: RMS %.3f mm, p95 %.3f mm, max %.2f mm, %d above "
              "5 mm; genPC %.1f ms\n",
              row.mode, row.points, row.coverage, row.measurable_coverage, row.error.rms,
              row.error.p95, row.error.max, row.error.above_5mm, genpc_ms);
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

const std::vector<int> kModes = {0, 1, 2};

// Measures in every mode through `view`, reports, adds the rows to `rows`
// and returns the measurements.
std::vector<Measurement> measure_and_report(Method method, const RenderedCapture& rendered,
                                            const VirtualSensor& sensor,
                                            const CalibrationView& view,
                                            std::vector<AccuracyRow>& rows) {
  std::vector<Measurement> results = measure_through(method, rendered, kModes, view.dir);
  print_header(method, results.front(), rendered.render_ms, view.name);
  for (const Measurement& m : results) {
    rows.push_back(accuracy_row(method, m, sensor, view));
    print_mode(rows.back(), m.genpc_ms);
  }
  return results;
}

// Measures through the recovered calibration (writing the outputs of mode
// 0, whose preview spans `range`, or when that is empty the depths
// measured, which are returned) and, for comparison, through the true one:
// what a perfect calibration would have given.
DepthRange run_method(Method method, const RenderedCapture& rendered, const VirtualSensor& sensor,
                      const CalibrationView& recovered, const CalibrationView& truth,
                      const std::string& out_dir, DepthRange range,
                      std::vector<AccuracyRow>& rows) {
  const std::vector<Measurement> results =
      measure_and_report(method, rendered, sensor, recovered, rows);
  if (range.empty()) range = percentile_range(depth_map(results.front()));
  std::printf("  write %.1f ms (mode %d)\n", write_outputs(out_dir, method, results.front(), range),
              results.front().mode);
  measure_and_report(method, rendered, sensor, truth, rows);
  return range;
}

void print_accuracy_table(const std::vector<AccuracyRow>& rows, const CalibrationView& recovered,
                          const CalibrationView& truth) {
  std::printf("accuracy against the true scene (measurable pixels: %d through the recovered "
              "calibration, %d through the true one):\n",
              recovered.measurable_count, truth.measurable_count);
  std::printf("  %-10s %-9s %4s %9s %8s %10s %8s %8s %8s %6s\n", "method", "calib", "mode",
              "points", "filtered", "measurable", "RMS mm", "p95 mm", "max mm", ">5 mm");
  for (const AccuracyRow& r : rows) {
    std::printf("  %-10s %-9s %4d %9zu %8d %9.2f%% %8.3f %8.3f %8.2f %6d\n",
                method_name(r.method), r.calibration, r.mode, r.points, r.removed,
                r.measurable_coverage, r.error.rms, r.error.p95, r.error.max, r.error.above_5mm);
  }
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

  const CalibrationView recovered =
      calibration_view("recovered", calibration.dir, sensor, cameras);
  const CalibrationView truth = calibration_view("true", calibration.true_dir, sensor, cameras);
  std::vector<AccuracyRow> rows;
  // Both previews share the phase-shift result's depth range, so they compare.
  const DepthRange range = run_method(Method::kPhaseShift, render_phase_shift(sensor, cameras),
                                      sensor, recovered, truth, out_dir, DepthRange(), rows);
  run_method(Method::kSgbm, render_textured_pair(sensor, cameras), sensor, recovered, truth,
             out_dir, range, rows);
  print_accuracy_table(rows, recovered, truth);
  std::printf("outputs in %s: the board to print in %s/, projector frames in %s/, board views "
              "in %s/, calibration in %s/; depth previews span %.0f..%.0f mm\n",
              out_dir.c_str(), kPrintSubdir, kPatternsSubdir, kBoardsSubdir, kCalibSubdir,
              range.near, range.far);
  return 0;
}

}  // namespace sl3d
