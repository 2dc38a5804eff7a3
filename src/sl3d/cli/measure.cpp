#include "measure.h"

#include <filesystem>
#include <fstream>
#include <memory>

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

GeneratorPtr make_generator(Method method, cv::Size size, const std::array<double, 16>& q,
                            const MethodParams& params) {
  GeneratorPtr gen(createPointCloudGenerator(static_cast<int>(method)));
  if (!gen || !gen->init(size.width, size.height)) {
    throw CliError("out of memory for " + std::to_string(size.width) + "x" +
                   std::to_string(size.height) + " images");
  }
  if (!gen->set_camera_params(q.data())) throw CliError("out of memory for the Q matrix");
  // setparams() copies the block, so handing in a copy's address is safe.
  MethodParams copy = params;
  if (method == Method::kPhaseShift) {
    gen->setparams(&copy.phaseshift);
  } else {
    gen->setparams(&copy.sgbm);
  }
  return gen;
}

// Frames go in index order per camera: black (0) must precede the Gray-code
// frames, which are stored minus black.
void hand_in(iPointCloudGenerator& gen, const Capture& capture) {
  for (int camera = 0; camera < 2; ++camera) {
    const std::vector<cv::Mat>& frames = capture.frames[camera];
    for (std::size_t index = 0; index < frames.size(); ++index) {
      const cv::Mat& frame = frames[index];
      gen.setpict(frame.data, frame.step[0], camera, static_cast<int>(index));
    }
  }
}

void copy_results(const iPointCloudGenerator& gen, int count, Measurement& m) {
  const PointCloudElement* points = gen.get_pointcloud_ptr();
  m.points.assign(points, points + count);
  const int* grid = gen.get_rangegrid();
  m.range_grid.assign(grid, grid + static_cast<std::size_t>(m.width) * m.height);
}

std::uintmax_t range_grid_bytes(const std::vector<int>& grid) {
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

Measurement measure(Method method, const Capture& capture, const std::array<double, 16>& q,
                    const MethodParams& params) {
  check_capture(method, capture);
  Measurement m;
  m.width = capture.size().width;
  m.height = capture.size().height;

  Stopwatch intake;
  GeneratorPtr gen = make_generator(method, capture.size(), q, params);
  hand_in(*gen, capture);
  m.intake_ms = intake.elapsed_ms();

  Stopwatch exec;
  gen->exec();
  m.exec_ms = exec.elapsed_ms();

  Stopwatch genpc;
  const int count = gen->genPC(0);
  m.genpc_ms = genpc.elapsed_ms();

  copy_results(*gen, count, m);
  return m;
}

void write_point_cloud(PendingFile& file, const Measurement& m) {
  const int status =
      writePLY(file.temp_path(), m.points.data(), static_cast<int>(m.points.size()),
               reinterpret_cast<const unsigned int*>(m.range_grid.data()), m.width, m.height);
  if (status != 0) throw file_error(file.final_path(), "write failed while closing");
  verify_ply(file.temp_path(), file.final_path(), m);
}

}  // namespace sl3d
