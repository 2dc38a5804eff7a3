// sl3d.Generator: a point-cloud generator (phase shift or block matching)
// with the checks the C++ interface leaves to its caller: call order,
// camera numbers and frame indices, image sizes, complete captures.

#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/pointcloud/disparity_filter.h>
#include <sl3d/pointcloud/threads.h>
#include <sl3d/pointcloud/verbose.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>

#include "arrays.h"
#include "bindings.h"
#include "params.h"

namespace sl3d {
namespace python {

namespace {

constexpr int kPhaseShiftFrames = 13;

enum class Method { kPhaseShift = 0, kSgbm = 1 };

const char* method_name(Method method) {
  return method == Method::kPhaseShift ? "phaseshift" : "sgbm";
}

Method parse_method(const py::handle& value) {
  if (py::isinstance<py::str>(value)) {
    const std::string name = value.cast<std::string>();
    if (name == "phaseshift") return Method::kPhaseShift;
    if (name == "sgbm") return Method::kSgbm;
  } else if (py::isinstance<py::int_>(value) && !py::isinstance<py::bool_>(value)) {
    const long kind = value.cast<long>();
    if (kind == 0) return Method::kPhaseShift;
    if (kind == 1) return Method::kSgbm;
  } else {
    throw py::type_error("method must be 'phaseshift', 'sgbm', 0 or 1");
  }
  throw py::value_error("method must be 'phaseshift' (0) or 'sgbm' (1), got " +
                        std::string(py::repr(value)));
}

const std::vector<Field<PhaseShiftParams>>& phaseshift_fields() {
  using P = PhaseShiftParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_contrast", &P::min_contrast),
      int_field("max_white_level", &P::max_white_level),
      int_field("min_white_level", &P::min_white_level),
      double_field("unwrap_phase_margin", &P::unwrap_phase_margin),
      double_field("max_neighbor_disparity_step", &P::max_neighbor_disparity_step),
      double_field("max_phase_difference", &P::max_phase_difference),
      double_field("max_brightness_ratio", &P::max_brightness_ratio),
      double_field("max_disparity", &P::max_disparity),
      double_field("min_disparity", &P::min_disparity),
      int_field("max_uses_per_right_pixel", &P::max_uses_per_right_pixel),
      int_field("fit_width", &P::fit_width),
  };
  return fields;
}

const std::vector<Field<SGBMParams>>& sgbm_fields() {
  using P = SGBMParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_disparity", &P::min_disparity),
      int_field("num_disparities", &P::num_disparities),
      int_field("block_size", &P::block_size),
      int_field("disp12_max_diff", &P::disp12_max_diff),
      int_field("pre_filter_cap", &P::pre_filter_cap),
      int_field("uniqueness_ratio", &P::uniqueness_ratio),
      int_field("speckle_window_size", &P::speckle_window_size),
      int_field("speckle_range", &P::speckle_range),
      int_field("mode", &P::mode),
  };
  return fields;
}

// Values the library would silently replace, or that OpenCV refuses only
// in the middle of exec.
void check_params(const PhaseShiftParams& p) {
  if (p.fit_width != 3 && p.fit_width != 5) throw py::value_error("fit_width must be 3 or 5");
  if (!(p.min_disparity < p.max_disparity)) {
    throw py::value_error("min_disparity must be below max_disparity");
  }
}

void check_params(const SGBMParams& p) {
  if (p.num_disparities <= 0 || p.num_disparities % 16 != 0) {
    throw py::value_error("num_disparities must be a positive multiple of 16");
  }
  if (p.block_size < 1 || p.block_size % 2 == 0) {
    throw py::value_error("block_size must be a positive odd number");
  }
  if (p.mode < 0 || p.mode > 3) throw py::value_error("mode must be 0..3 (cv::StereoSGBM modes)");
}

struct GeneratorDeleter {
  void operator()(iPointCloudGenerator* gen) const {
    if (gen != nullptr) gen->destroy();
  }
};

// What genPC hands back, gathered without the GIL.
struct Cloud {
  std::vector<float> xyz;
  std::vector<std::uint8_t> grey;
  std::vector<std::int32_t> grid;
};

// DisparityFilterOptions from a dict keyed by its field names.
DisparityFilterOptions filter_options(const py::dict& values) {
  DisparityFilterOptions o;
  const std::vector<std::pair<const char*, bool DisparityFilterOptions::*>> flags = {
      {"drop_decode_rejected", &DisparityFilterOptions::drop_decode_rejected},
      {"refit_integer_matches", &DisparityFilterOptions::refit_integer_matches},
      {"check_all_sides", &DisparityFilterOptions::check_all_sides},
      {"drop_unmatched_border", &DisparityFilterOptions::drop_unmatched_border}};
  const std::vector<std::pair<const char*, double DisparityFilterOptions::*>> reals = {
      {"max_neighbour_step", &DisparityFilterOptions::max_neighbour_step},
      {"max_span_step", &DisparityFilterOptions::max_span_step},
      {"max_patch_step", &DisparityFilterOptions::max_patch_step}};
  for (const auto& item : values) {
    const std::string key = key_name(item.first);
    bool known = false;
    for (const auto& [name, member] : flags) {
      if (key != name) continue;
      if (!py::isinstance<py::bool_>(item.second)) throw py::type_error(key + " must be a bool");
      o.*member = item.second.cast<bool>();
      known = true;
    }
    for (const auto& [name, member] : reals) {
      if (key == name) o.*member = real_value(item.second, key), known = true;
    }
    if (key == "min_patch_size") o.min_patch_size = int_value(item.second, key), known = true;
    if (!known) {
      throw py::key_error("unknown filter option '" + key +
                          "' (known: drop_decode_rejected, refit_integer_matches, "
                          "max_neighbour_step, check_all_sides, max_span_step, "
                          "drop_unmatched_border, min_patch_size, max_patch_step)");
    }
  }
  return o;
}

class Generator {
 public:
  Generator(const py::handle& method, bool verbose) : method_(parse_method(method)) {
    gen_.reset(createPointCloudGenerator(static_cast<int>(method_)));
    if (!gen_) throw std::bad_alloc();
    sl3d::set_verbose(gen_.get(), verbose);
  }

  std::string method() const { return method_name(method_); }
  int width() const { return width_; }
  int height() const { return height_; }

  bool verbose() {
    return with_generator([](iPointCloudGenerator& gen) { return sl3d::is_verbose(&gen); });
  }
  void set_verbosity(bool on) {
    with_generator([on](iPointCloudGenerator& gen) { return sl3d::set_verbose(&gen, on); });
  }

  void init(int width, int height) {
    if (width < 1 || height < 1) throw py::value_error("width and height must be at least 1");
    if (static_cast<long long>(width) * height > INT_MAX) {
      throw py::value_error("width * height must stay below 2**31");
    }
    const bool ok =
        with_generator([&](iPointCloudGenerator& gen) { return gen.init(width, height); });
    width_ = ok ? width : 0;
    height_ = ok ? height : 0;
    calibrated_ = executed_ = false;
    frames_ = {0, 0};
    if (!ok) throw std::bad_alloc();
  }

  void set_camera_params(const py::handle& value) {
    require_init("set_camera_params");
    if (py::isinstance<py::str>(value) || py::isinstance<py::bytes>(value) ||
        py::hasattr(value, "__fspath__")) {
      load_directory(path_string(value, "calibration directory"));
      return;
    }
    const cv::Mat_<double> q = matrix(value, 4, 4, "Q");
    if (!with_generator([&](iPointCloudGenerator& gen) { return gen.set_camera_params(q[0]); })) {
      throw std::bad_alloc();
    }
    calibrated_ = true;
  }

  void setparams(const py::dict& values) {
    if (method_ == Method::kPhaseShift) {
      PhaseShiftParams p = phaseshift_;
      apply_fields(values, phaseshift_fields(), p, "phaseshift");
      check_params(p);
      hand_params(p);
      phaseshift_ = p;
    } else {
      SGBMParams p = sgbm_;
      apply_fields(values, sgbm_fields(), p, "sgbm");
      check_params(p);
      hand_params(p);
      sgbm_ = p;
    }
  }

  py::dict params() const {
    return method_ == Method::kPhaseShift ? fields_dict(phaseshift_fields(), phaseshift_)
                                          : fields_dict(sgbm_fields(), sgbm_);
  }

  void setpict(const py::handle& image, int camera, int index) {
    require_init("setpict");
    check_camera(camera);
    if (method_ == Method::kPhaseShift && (index < 0 || index >= kPhaseShiftFrames)) {
      throw py::value_error("phaseshift frame index must be 0..12, got " + std::to_string(index));
    }
    const cv::Mat view = image_view(image, "image");
    require_size(view, width_, height_, "image");
    with_generator(
        [&](iPointCloudGenerator& gen) { gen.setpict(view.data, view.step[0], camera, index); });
    note_frame(camera, method_ == Method::kPhaseShift ? index : 0);
  }

  py::array rectify(const py::handle& image, int camera, bool inplace) {
    require_init("rectify");
    check_camera(camera);
    const cv::Mat input = image_view(image, "image", inplace);
    require_size(input, width_, height_, "image");
    py::array out;
    cv::Mat target = input;
    if (inplace) {
      out = py::reinterpret_borrow<py::array>(image);
    } else {
      out = py::array_t<std::uint8_t>(std::vector<py::ssize_t>{height_, width_});
      target = cv::Mat(height_, width_, CV_8UC1, out.mutable_data());
      input.copyTo(target);
    }
    with_generator([&](iPointCloudGenerator& gen) {
      if (stereo_camera(gen) == nullptr) {
        throw LibraryError("rectify needs a calibration directory: set_camera_params(dir) first");
      }
      gen.rectify(target.data, target.cols, target.rows, target.step[0], camera);
    });
    return out;
  }

  int exec() {
    require_init("exec");
    require_complete_capture();
    // The methods' own results differ (rows matched, records made); the
    // number of matches means the same for both.
    const int matches = with_generator([](iPointCloudGenerator& gen) {
      gen.exec();
      return static_cast<const PointCloudGenerator&>(gen).get_disparity_cnt();
    });
    executed_ = true;
    return matches;
  }

  // sl3d::filter_disparities between exec and genPC.
  py::dict filter_disparities(const py::dict& values) {
    require_init("filter_disparities");
    if (!executed_) throw LibraryError("filter_disparities needs exec() first");
    const DisparityFilterOptions options = filter_options(values);
    const DisparityFilterReport r = with_generator([&](iPointCloudGenerator& gen) {
      return sl3d::filter_disparities(static_cast<PointCloudGenerator&>(gen), options);
    });
    py::dict d;
    d["decode_rejected"] = r.decode_rejected;
    d["integer_unfit"] = r.integer_unfit;
    d["integer_refitted"] = r.integer_refitted;
    d["neighbour_step"] = r.neighbour_step;
    d["small_patch"] = r.small_patch;
    d["removed"] = r.removed();
    d["kept"] = r.kept;
    return d;
  }

  py::tuple genPC(int mode) {
    require_init("genPC");
    if (mode < 0 || mode > 2) throw py::value_error("mode must be 0, 1 or 2");
    if (!executed_) throw LibraryError("genPC needs exec() first");
    if (!calibrated_) {
      throw LibraryError(
          "genPC needs a Q matrix or calibration directory: set_camera_params first");
    }
    const std::size_t pixels = static_cast<std::size_t>(width_) * height_;
    Cloud cloud = with_generator([&](iPointCloudGenerator& gen) {
      if (mode != 0 && stereo_camera(gen) == nullptr) {
        throw std::invalid_argument(
            "modes 1 and 2 need a calibration directory; with Q alone use mode 0");
      }
      // Modes 1 and 2 leave cells of pixels without a point as they were;
      // the grid handed back holds this generation's points only.
      std::fill(gen.get_rangegrid(), gen.get_rangegrid() + pixels, -1);
      const int count = gen.genPC(mode);
      return copy_cloud(gen, count, pixels);
    });
    const py::ssize_t n = static_cast<py::ssize_t>(cloud.grey.size());
    py::array_t<float> points({n, py::ssize_t{3}});
    py::array_t<std::uint8_t> grey(n);
    py::array_t<std::int32_t> grid(std::vector<py::ssize_t>{height_, width_});
    std::memcpy(points.mutable_data(), cloud.xyz.data(), cloud.xyz.size() * sizeof(float));
    std::memcpy(grey.mutable_data(), cloud.grey.data(), cloud.grey.size());
    std::memcpy(grid.mutable_data(), cloud.grid.data(), cloud.grid.size() * sizeof(std::int32_t));
    return py::make_tuple(points, grey, grid);
  }

  py::object q_matrix() {
    std::vector<double> q = with_generator([](iPointCloudGenerator& gen) {
      const double* m = base(gen).get_q_matrix();
      return m == nullptr ? std::vector<double>() : std::vector<double>(m, m + 16);
    });
    if (q.empty()) return py::none();
    py::array_t<double> out(std::vector<py::ssize_t>{4, 4});
    std::copy(q.begin(), q.end(), out.mutable_data());
    return std::move(out);
  }

  // A copy of the loaded stereo model, or None.
  std::unique_ptr<StereoCamera> stereo_model() {
    return with_generator([](iPointCloudGenerator& gen) {
      const StereoCamera* pair = stereo_camera(gen);
      return pair == nullptr ? nullptr : std::make_unique<StereoCamera>(*pair);
    });
  }

  void close() {
    without_gil(lock_, [this] { gen_.reset(); });
  }

 private:
  // Runs `work` on the generator without the GIL and with the generator's
  // lock held (see without_gil).
  template <class Work>
  auto with_generator(Work&& work) -> decltype(work(std::declval<iPointCloudGenerator&>())) {
    return without_gil(lock_, [&] {
      if (!gen_) throw LibraryError("the generator is closed");
      return work(*gen_);
    });
  }

  // The factory's generators all derive from PointCloudGenerator, which
  // holds the inline accessors of the loaded calibration.
  static const PointCloudGenerator& base(const iPointCloudGenerator& gen) {
    return static_cast<const PointCloudGenerator&>(gen);
  }
  static const StereoCamera* stereo_camera(const iPointCloudGenerator& gen) {
    return base(gen).get_stereo_camera();
  }

  void require_init(const char* call) {
    with_generator([](iPointCloudGenerator&) {});
    if (width_ == 0) {
      throw LibraryError(std::string(call) + " needs init(width, height) first");
    }
  }

  static void check_camera(int camera) {
    if (camera != 0 && camera != 1) {
      throw py::value_error("camera must be 0 or 1, got " + std::to_string(camera));
    }
  }

  template <class Block>
  void hand_params(Block block) {
    with_generator([&](iPointCloudGenerator& gen) { gen.setparams(&block); });
  }

  void load_directory(const std::string& dir) {
    bool loaded = false;
    cv::Size raw;
    try {
      loaded = with_generator([&](iPointCloudGenerator& gen) {
        const bool ok = gen.set_camera_params(dir.c_str());
        if (ok) raw = stereo_camera(gen)->oldcamSize;
        return ok;
      });
    } catch (const cv::Exception& e) {
      throw LibraryError(dir + ": corrupt calibration file (" + e.err + ")");
    }
    if (!loaded) {
      throw LibraryError(dir +
                         ": no usable calibration (neither hmat0.dat, hmat1.dat, "
                         "rect.param for " +
                         std::to_string(width_) + "x" + std::to_string(height_) +
                         " images nor cam0_param.yaml, "
                         "cam1_param.yaml load)");
    }
    if (raw != cv::Size(width_, height_)) {
      calibrated_ = false;
      throw py::value_error(dir + ": the calibration is for " + std::to_string(raw.width) + "x" +
                            std::to_string(raw.height) + " images, the generator for " +
                            std::to_string(width_) + "x" + std::to_string(height_));
    }
    calibrated_ = true;
  }

  // Black (index 0) must come before a camera's Gray-code frames (2..8),
  // which are stored minus black: a new black frame asks for them again.
  void note_frame(int camera, int index) {
    if (index == 0) frames_[camera] &= ~0x1FC;
    frames_[camera] |= 1u << index;
  }

  void require_complete_capture() const {
    const int frames = method_ == Method::kPhaseShift ? kPhaseShiftFrames : 1;
    std::string missing;
    for (int camera = 0; camera < 2; ++camera) {
      for (int index = 0; index < frames; ++index) {
        if (frames_[camera] & (1u << index)) continue;
        missing += (missing.empty() ? "" : ", ") + std::string("camera ") + std::to_string(camera) +
                   (method_ == Method::kPhaseShift ? " index " + std::to_string(index) : "");
      }
    }
    if (!missing.empty()) {
      throw LibraryError("exec needs every frame of the capture; missing: " + missing +
                         " (a black frame, index 0, asks for that camera's Gray-code "
                         "frames 2..8 again)");
    }
  }

  static Cloud copy_cloud(const iPointCloudGenerator& gen, int count, std::size_t pixels) {
    Cloud cloud;
    const PointCloudElement* p = gen.get_pointcloud_ptr();
    cloud.xyz.reserve(3 * static_cast<std::size_t>(count));
    cloud.grey.reserve(count);
    for (int i = 0; i < count; ++i) {
      cloud.xyz.insert(cloud.xyz.end(), {p[i].x, p[i].y, p[i].z});
      cloud.grey.push_back(p[i].red);
    }
    const int* grid = gen.get_rangegrid();
    cloud.grid.assign(grid, grid + pixels);
    for (std::int32_t& index : cloud.grid) {
      if (index >= count) index = -1;
    }
    return cloud;
  }

  std::unique_ptr<iPointCloudGenerator, GeneratorDeleter> gen_;
  Method method_;
  int width_ = 0;
  int height_ = 0;
  bool calibrated_ = false;           // Q or a directory since init
  bool executed_ = false;             // exec since init
  std::array<unsigned, 2> frames_{};  // per camera, bit i: frame i handed in
  PhaseShiftParams phaseshift_;       // the blocks last handed to setparams
  SGBMParams sgbm_;                   // (the factory's defaults at first)
  std::mutex lock_;
};

// Checks the file writePLY made: it reports neither a failed open nor a
// short write. The body's size follows from the content.
void verify_ply(const std::string& path, std::size_t points,
                const std::vector<std::int32_t>& grid) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw FileError(path + ": cannot create the file");
  std::size_t header = 0;
  bool complete = false;
  for (std::string line; !complete && header < 4096 && std::getline(in, line);) {
    header += line.size() + 1;
    complete = line == "end_header";
  }
  std::size_t body = 15 * points;
  for (std::int32_t index : grid) body += index < 0 ? 1 : 5;
  in.clear();
  in.seekg(0, std::ios::end);
  if (!complete || static_cast<std::size_t>(in.tellg()) != header + body) {
    throw FileError(path + ": the PLY file was not written completely");
  }
}

void write_ply(const py::handle& path_value, const py::handle& points_value,
               const py::handle& grey_value, const py::handle& grid_value) {
  const std::string path = path_string(path_value, "path");
  const std::vector<cv::Vec3d> xyz = points3d(points_value, "points");
  const std::vector<std::uint8_t> grey = grey_value.is_none()
                                             ? std::vector<std::uint8_t>(xyz.size(), 255)
                                             : byte_values(grey_value, "grey");
  if (grey.size() != xyz.size()) {
    throw py::value_error("grey must have one value per point (" + std::to_string(xyz.size()) +
                          "), got " + std::to_string(grey.size()));
  }
  std::vector<PointCloudElement> cloud(xyz.size());
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    cloud[i] = {static_cast<float>(xyz[i][0]),
                static_cast<float>(xyz[i][1]),
                static_cast<float>(xyz[i][2]),
                grey[i],
                grey[i],
                grey[i],
                0};
  }
  std::vector<std::int32_t> grid;
  int cols = 0, rows = 0;
  if (!grid_value.is_none()) {
    const py::array_t<double> a = real_array(grid_value, "range_grid");
    if (a.ndim() != 2 || a.size() == 0)
      throw py::value_error("range_grid must be 2-D (height, width)");
    rows = static_cast<int>(a.shape(0));
    cols = static_cast<int>(a.shape(1));
    for (py::ssize_t i = 0; i < a.size(); ++i) {
      const double v = a.data()[i];
      if (v != std::floor(v) || v < -1 || v >= static_cast<double>(xyz.size())) {
        throw py::value_error("range_grid values must be -1 or indices of points");
      }
      grid.push_back(static_cast<std::int32_t>(v));
    }
  }
  const int status =
      writePLY(path, cloud.data(), static_cast<int>(cloud.size()),
               grid.empty() ? nullptr : reinterpret_cast<const unsigned*>(grid.data()), cols, rows);
  if (status != 0) throw FileError(path + ": writing failed while closing the file");
  verify_ply(path, cloud.size(), grid);
}

}  // namespace

void bind_generators(py::module_& m) {
  py::class_<Generator>(m, "Generator", R"doc(
A point-cloud generator: phase shift ('phaseshift', 0) or semi-global block
matching ('sgbm', 1). Call order: init, set_camera_params, setparams, then
per capture setpict (after rectify for raw frames), exec, genPC.
exec, genPC and the other calls release the GIL; one generator is used by
one call at a time (calls from other threads wait).)doc")
      .def(py::init([](const py::object& method, bool verbose) {
             return std::make_unique<Generator>(method, verbose);
           }),
           py::arg("method") = "phaseshift", py::arg("verbose") = false)
      .def_property_readonly("method", &Generator::method)
      .def_property_readonly("width", &Generator::width)
      .def_property_readonly("height", &Generator::height)
      .def_property("verbose", &Generator::verbose, &Generator::set_verbosity,
                    "Whether the library prints its loading and fallback messages on stdout.")
      .def("init", &Generator::init, py::arg("width"), py::arg("height"))
      .def("set_camera_params", &Generator::set_camera_params, py::arg("q_or_directory"))
      .def("_setparams", &Generator::setparams)
      .def_property_readonly("params", &Generator::params,
                             "The parameter block last handed in, as a dict.")
      .def("setpict", &Generator::setpict, py::arg("image"), py::arg("camera"),
           py::arg("index") = 0)
      .def("rectify", &Generator::rectify, py::arg("image"), py::arg("camera"),
           py::arg("inplace") = false)
      .def("exec", &Generator::exec)
      .def("_filter_disparities", &Generator::filter_disparities, py::arg("options"))
      .def("_genPC", &Generator::genPC, py::arg("mode") = 0)
      .def_property_readonly("q", &Generator::q_matrix, "The Q matrix (a copy), or None.")
      .def_property_readonly("stereo_camera", &Generator::stereo_model,
                             "A copy of the loaded stereo model, or None.")
      .def("close", &Generator::close);

  m.def("set_num_threads", &set_num_threads, py::arg("n"),
        "Threads the generators' exec and genPC may use, for all later calls: 1 (the "
        "default) none besides the caller's, below 1 every hardware thread. Results are the "
        "same for every count.");
  m.def("num_threads", &num_threads, "The thread count set_num_threads resolved to.");
  m.def("_write_ply", &write_ply, py::arg("path"), py::arg("points"), py::arg("grey"),
        py::arg("range_grid"));
}

}  // namespace python
}  // namespace sl3d
