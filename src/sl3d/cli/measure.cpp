#include "measure.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/verbose.h>

#include "calib.h"
#include "errors.h"
#include "io.h"

namespace sl3d {

namespace {

struct GeneratorDeleter {
  void operator()(iPointCloudGenerator* gen) const {
    if (gen != nullptr) gen->destroy();
  }
};
using GeneratorPtr = std::unique_ptr<iPointCloudGenerator, GeneratorDeleter>;

std::size_t expected_frame_count(Method method) {
  return method == Method::kPhaseShift ? kPhaseShiftFrames : 1;
}

void check_capture(Method method, const Capture& capture) {
  const cv::Size size = capture.size();
  for (const std::vector<cv::Mat>& frames : capture.frames) {
    if (frames.size() != expected_frame_count(method)) {
      throw CliError("internal error: wrong number of frames for " +
                     std::string(method_name(method)));
    }
    for (const cv::Mat& frame : frames) {
      if (frame.type() != CV_8UC1 || frame.size() != size) {
        throw CliError("internal error: frames differ in size or type");
      }
    }
  }
}

GeneratorPtr make_generator(Method method, cv::Size size) {
  GeneratorPtr gen(createPointCloudGenerator(static_cast<int>(method)));
  if (!gen || !gen->init(size.width, size.height)) {
    throw CliError("out of memory for " + std::to_string(size.width) + "x" +
                   std::to_string(size.height) + " images");
  }
  // The library would announce its loading routes on stdout, amid the
  // tool's own report; the tool explains a failed load itself.
  set_verbose(gen.get(), false);
  return gen;
}

void set_params(iPointCloudGenerator& gen, Method method, const MethodParams& params) {
  // setparams() copies the block, so handing in a copy's address is safe.
  MethodParams copy = params;
  if (method == Method::kPhaseShift) {
    gen.setparams(&copy.phaseshift);
  } else {
    gen.setparams(&copy.sgbm);
  }
}

// The library reports a directory that does not load as false, or lets a
// corrupt YAML file's exception through; both become one message that
// names the files at fault.
void load_calibration(iPointCloudGenerator& gen, const std::string& dir, cv::Size size) {
  bool loaded = false;
  try {
    loaded = gen.set_camera_params(dir.c_str());
  } catch (const cv::Exception&) {
    loaded = false;
  }
  if (!loaded) throw CliError(calibration_failure(dir, size));
  const StereoCamera* pair = static_cast<const PointCloudGenerator&>(gen).get_stereo_camera();
  if (pair != nullptr && pair->oldcamSize != size) {
    throw file_error(dir, "calibration is for " + size_text(pair->oldcamSize) +
                              " images, the captures are " + size_text(size));
  }
}

// Frames go in index order per camera: black (0) must precede the Gray-code
// frames, which are stored minus black. Raw frames are rectified first, in
// place when the capture is consumable, else in a copy; returns the time
// spent rectifying.
double hand_in(iPointCloudGenerator& gen, const Capture& capture, bool rectify) {
  double rectify_ms = 0.0;
  for (int camera = 0; camera < 2; ++camera) {
    const std::vector<cv::Mat>& frames = capture.frames[camera];
    for (std::size_t index = 0; index < frames.size(); ++index) {
      cv::Mat frame = frames[index];
      if (rectify) {
        const Stopwatch watch;
        if (!capture.consumable) frame = frame.clone();
        gen.rectify(frame.data, frame.cols, frame.rows, frame.step[0], camera);
        rectify_ms += watch.elapsed_ms();
      }
      gen.setpict(frame.data, frame.step[0], camera, static_cast<int>(index));
    }
  }
  return rectify_ms;
}

// Modes 1 and 2 fill the range grid without clearing it first, so an
// earlier mode's cells would survive where this one gives no point.
void clear_range_grid(iPointCloudGenerator& gen, cv::Size size) {
  int* grid = gen.get_rangegrid();
  std::fill(grid, grid + static_cast<std::size_t>(size.area()), -1);
}

// The points and grid of one genPC: views of the generator's buffers when
// no later mode overwrites them (the measurement then owns the generator),
// else copies.
void keep_results(const std::shared_ptr<iPointCloudGenerator>& gen, int count, bool last,
                  Measurement& m) {
  const PointCloudElement* points = gen->get_pointcloud_ptr();
  const int* grid = gen->get_rangegrid();
  const std::size_t cells = static_cast<std::size_t>(m.width) * m.height;
  if (last) {
    m.points = ArrayView<PointCloudElement>(points, static_cast<std::size_t>(count));
    m.range_grid = ArrayView<int>(grid, cells);
    m.storage = gen;
    return;
  }
  struct Copy {
    std::vector<PointCloudElement> points;
    std::vector<int> grid;
  };
  auto copy = std::make_shared<Copy>();
  copy->points.assign(points, points + count);
  copy->grid.assign(grid, grid + cells);
  m.points = ArrayView<PointCloudElement>(copy->points.data(), copy->points.size());
  m.range_grid = ArrayView<int>(copy->grid.data(), copy->grid.size());
  m.storage = copy;
}

std::uintmax_t range_grid_bytes(const ArrayView<int>& grid) {
  std::uintmax_t bytes = 0;
  for (int index : grid) bytes += index < 0 ? 1 : 5;  // list length, then the index
  return bytes;
}

// The header's length is whatever writePLY chose; the body's size follows
// from the content: 15 bytes per vertex and the range grid's lists.
void verify_ply(const std::string& temp, const std::string& final_path, const Measurement& m) {
  std::ifstream in(temp, std::ios::binary);
  if (!in) throw file_error(final_path, "cannot create the file");
  std::string header;
  for (std::string line; std::getline(in, line) && header.size() < 4096;) {
    header += line + "\n";
    if (line == "end_header") break;
  }
  if (header.rfind("ply\n", 0) != 0 || header.find("end_header\n") == std::string::npos) {
    throw file_error(final_path, "PLY header was not written completely");
  }
  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(temp, ec);
  const std::uintmax_t expected =
      header.size() + 15u * m.points.size() + range_grid_bytes(m.range_grid);
  if (ec || size != expected) throw file_error(final_path, "incomplete write (disk full?)");
}

}  // namespace

const char* method_name(Method method) {
  return method == Method::kPhaseShift ? "phaseshift" : "sgbm";
}

Method parse_method(const std::string& command, const std::string& name) {
  if (name == "phaseshift") return Method::kPhaseShift;
  if (name == "sgbm") return Method::kSgbm;
  throw usage_error(command, "--method must be phaseshift or sgbm, got '" + name + "'");
}

std::vector<Measurement> measure(Method method, const Capture& capture, const CameraSetup& setup,
                                 const MethodParams& params) {
  check_capture(method, capture);
  const cv::Size size = capture.size();
  const bool raw = !setup.calib_dir.empty();
  Measurement common;
  common.width = size.width;
  common.height = size.height;

  Stopwatch intake;
  GeneratorPtr gen = make_generator(method, size);
  if (raw) {
    const Stopwatch calib;
    load_calibration(*gen, setup.calib_dir, size);
    common.calib_ms = calib.elapsed_ms();
  } else if (!gen->set_camera_params(setup.q.data())) {
    throw CliError("out of memory for the Q matrix");
  }
  set_params(*gen, method, params);
  common.rectify_ms = hand_in(*gen, capture, raw);
  common.intake_ms = intake.elapsed_ms() - common.calib_ms - common.rectify_ms;

  Stopwatch exec;
  gen->exec();
  common.exec_ms = exec.elapsed_ms();
  common.records = static_cast<PointCloudGenerator&>(*gen).get_disparity_cnt();
  if (setup.filter) {
    const Stopwatch filter;
    common.filtered = filter_disparities(static_cast<PointCloudGenerator&>(*gen));
    common.filter_ms = filter.elapsed_ms();
  }

  // Every earlier genPC's grid cells are cleared before the next mode, which
  // (modes 1 and 2) would otherwise keep them where it gives no point; the
  // grid of a fresh generator is empty already.
  const std::shared_ptr<iPointCloudGenerator> shared(std::move(gen));
  std::vector<Measurement> results;
  for (std::size_t k = 0; k < setup.modes.size(); ++k) {
    Measurement m = common;
    m.mode = setup.modes[k];
    if (k > 0) clear_range_grid(*shared, size);
    const Stopwatch genpc;
    const int count = shared->genPC(m.mode);
    m.genpc_ms = genpc.elapsed_ms();
    keep_results(shared, count, k + 1 == setup.modes.size(), m);
    results.push_back(std::move(m));
  }
  return results;
}

void write_point_cloud(PendingFile& file, const Measurement& m) {
  const int status =
      writePLY(file.temp_path(), m.points.data(), static_cast<int>(m.points.size()),
               reinterpret_cast<const unsigned int*>(m.range_grid.data()), m.width, m.height);
  if (status != 0) throw file_error(file.final_path(), "write failed while closing");
  verify_ply(file.temp_path(), file.final_path(), m);
}

}  // namespace sl3d
