// `sl3d demo`: the whole pipeline on the virtual sensor, with the measured
// depth compared against the rendered truth.

#include <cstdio>
#include <filesystem>

#include <sl3d/sim/virtual_sensor.h>

#include "args.h"
#include "commands.h"
#include "depth.h"
#include "errors.h"
#include "io.h"
#include "measure.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "demo";
const char kDefaultOutDir[] = "out/demo";

struct RenderedCapture {
  Capture capture;
  double render_ms = 0.0;
};

RenderedCapture render_phase_shift(const VirtualSensor& sensor) {
  progress("rendering phase-shift frames");
  Stopwatch watch;
  RenderedCapture rendered;
  for (int camera = 0; camera < 2; ++camera) {
    rendered.capture.frames[camera] = sensor.render_phase_shift(camera);
  }
  rendered.render_ms = watch.elapsed_ms();
  return rendered;
}

RenderedCapture render_textured_pair(const VirtualSensor& sensor) {
  progress("rendering the textured pair");
  Stopwatch watch;
  RenderedCapture rendered;
  for (int camera = 0; camera < 2; ++camera) {
    rendered.capture.frames[camera] = {sensor.render_textured(camera)};
  }
  rendered.render_ms = watch.elapsed_ms();
  return rendered;
}

// Writes DIR/<method>.ply and DIR/<method>_depth.png; returns the time taken.
double write_outputs(const std::string& dir, Method method, const Measurement& m) {
  Stopwatch watch;
  const std::string base = (fs::path(dir) / method_name(method)).string();
  std::vector<PendingFile> outputs;
  outputs.reserve(2);
  outputs.emplace_back(base + ".ply");
  write_point_cloud(outputs.back(), m);
  outputs.emplace_back(base + "_depth.png");
  outputs.back().write(encode_png(depth_preview(depth_map(m)), outputs.back().final_path()));
  commit_all(outputs);
  return watch.elapsed_ms();
}

void print_report(Method method, const Measurement& m, const DepthErrorStats& error,
                  double render_ms, double write_ms) {
  std::printf("%s: %zu points, coverage %.1f%%\n", method_name(method), m.points.size(),
              coverage_percent(m));
  std::printf("  depth error over %d points: RMS %.3f mm, p95 |error| %.3f mm, %d above 10 mm\n",
              error.compared, error.rms_mm, error.p95_abs_mm, error.gross);
  std::printf("  time: render %.0f ms, intake %.1f ms, exec %.1f ms, genPC %.1f ms, write %.1f ms\n",
              render_ms, m.intake_ms, m.exec_ms, m.genpc_ms, write_ms);
}

void run_method(Method method, const RenderedCapture& rendered, const SimGroundTruth& truth,
                const std::string& out_dir) {
  progress(std::string("measuring with ") + method_name(method));
  const Measurement m = measure(method, rendered.capture, truth.q, MethodParams());
  const double write_ms = write_outputs(out_dir, method, m);
  print_report(method, m, depth_error(m, truth.depth), rendered.render_ms, write_ms);
}

}  // namespace

int run_demo(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_options(kCommand, args, {{"--out", true}});
  const std::string out_dir = parsed.get("--out", kDefaultOutDir);
  if (out_dir.empty()) throw usage_error(kCommand, "--out needs a non-empty value");
  prepare_output_directory(out_dir);

  const VirtualSensor sensor;
  progress("rendering the true depth");
  const SimGroundTruth truth = sensor.ground_truth();
  run_method(Method::kPhaseShift, render_phase_shift(sensor), truth, out_dir);
  run_method(Method::kSgbm, render_textured_pair(sensor), truth, out_dir);
  std::printf("outputs in %s\n", out_dir.c_str());
  return 0;
}

}  // namespace sl3d
