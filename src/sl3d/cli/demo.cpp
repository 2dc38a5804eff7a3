// `sl3d demo`: the whole pipeline on the virtual sensor from raw captures:
// its real cameras' calibration directory is written, the captures are
// rectified through it, measured, and every point is compared with the
// scene's true surfaces.

#include <cstdio>
#include <filesystem>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/sim/sim_calibration.h>
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
const char kCalibSubdir[] = "calib";

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

std::string write_calibration(const std::string& out_dir, const std::array<SimCamera, 2>& cameras) {
  PendingDirectory calib((fs::path(out_dir) / kCalibSubdir).string());
  if (!write_calibration_directory(cameras, calib.temp_path())) {
    throw file_error(calib.final_path(), "cannot write the calibration files");
  }
  calib.commit();
  return calib.final_path();
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

void run_method(Method method, const RenderedCapture& rendered, const std::vector<int>& modes,
                const std::string& calib_dir, const VirtualSensor& sensor,
                const WorldFromRect& to_world, const std::string& out_dir) {
  progress(std::string("measuring with ") + method_name(method));
  CameraSetup setup;
  setup.calib_dir = calib_dir;
  setup.modes = modes;
  const std::vector<Measurement> results = measure(method, rendered.capture, setup, MethodParams());
  print_header(method, results.front(), rendered.render_ms);
  for (const Measurement& m : results) print_mode(m, surface_error(m, sensor, to_world));
  std::printf("  write %.1f ms (mode %d)\n", write_outputs(out_dir, method, results.front()),
              results.front().mode);
}

}  // namespace

int run_demo(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_options(kCommand, args, {{"--out", true}});
  const std::string out_dir = parsed.get("--out", kDefaultOutDir);
  if (out_dir.empty()) throw usage_error(kCommand, "--out needs a non-empty value");
  prepare_output_directory(out_dir);

  const VirtualSensor sensor;
  const std::array<SimCamera, 2> cameras = default_raw_cameras(sensor.rig());
  const std::string calib_dir = write_calibration(out_dir, cameras);
  const WorldFromRect to_world = world_from_rect(calib_dir, cameras);
  run_method(Method::kPhaseShift, render_phase_shift(sensor, cameras), {0, 1, 2}, calib_dir,
             sensor, to_world, out_dir);
  run_method(Method::kSgbm, render_textured_pair(sensor, cameras), {0}, calib_dir, sensor,
             to_world, out_dir);
  std::printf("outputs in %s (calibration in %s)\n", out_dir.c_str(), calib_dir.c_str());
  return 0;
}

}  // namespace sl3d
