// The virtual sensor: captures of a known scene, board views and
// calibration sets with their truth, as `sl3d synth` renders them.
// Rendering releases the GIL (a sensor is not changed by rendering).

#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>
#include <sl3d/sim/calibration_set.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "arrays.h"
#include "bindings.h"
#include "boards.h"
#include "cameras.h"
#include "params.h"

namespace sl3d {
namespace python {

namespace {

constexpr int kMaxRenderSide = 8192;

// Distances, millimetres, of `sl3d synth --boards`: single views fill about
// half the image; calibration boards are held nearer than the scene.
constexpr double kBoardDistanceMm = 330.0;
constexpr double kCalibrationNearMm = 600.0;
constexpr double kCalibrationFarMm = 1000.0;

void check_render_size(int width, int height) {
  if (width < 8 || height < 8 || width > kMaxRenderSide || height > kMaxRenderSide) {
    throw py::value_error("width and height must be 8.." + std::to_string(kMaxRenderSide));
  }
}

double positive(const py::handle& value, const char* name) {
  const double v = real_value(value, name);
  if (!(v > 0.0)) throw py::value_error(std::string(name) + " must be > 0");
  return v;
}

SimLight light_from(const py::handle& values) {
  SimLight light;
  if (values.is_none()) return light;
  if (!py::isinstance<py::dict>(values)) throw py::type_error("light must be a dict");
  for (const auto& item : py::reinterpret_borrow<py::dict>(values)) {
    const std::string key = key_name(item.first);
    if (key == "ambient") {
      light.ambient = real_value(item.second, key);
    } else if (key == "projector_gain") {
      light.projector_gain = real_value(item.second, key);
    } else if (key == "fringe_contrast") {
      light.fringe_contrast = real_value(item.second, key);
    } else if (key == "blur_sigma_px") {
      light.blur_sigma_px = real_value(item.second, key);
    } else if (key == "noise_sigma") {
      light.noise_sigma = real_value(item.second, key);
    } else if (key == "seed") {
      const int seed = int_value(item.second, key);
      if (seed < 0) throw py::value_error("seed must be >= 0");
      light.seed = static_cast<std::uint32_t>(seed);
    } else if (key == "supersampling") {
      light.supersampling = int_value(item.second, key);
    } else {
      throw py::key_error("unknown light key '" + key +
                          "' (known: ambient, projector_gain, "
                          "fringe_contrast, blur_sigma_px, noise_sigma, seed, supersampling)");
    }
  }
  if (light.blur_sigma_px < 0 || light.blur_sigma_px > 50) {
    throw py::value_error("blur_sigma_px must be 0..50");
  }
  if (light.noise_sigma < 0 || light.noise_sigma > 100)
    throw py::value_error("noise_sigma must be 0..100");
  if (light.supersampling < 1 || light.supersampling > 8) {
    throw py::value_error("supersampling must be 1..8");
  }
  return light;
}

void check_camera(int camera) {
  if (camera != 0 && camera != 1) {
    throw py::value_error("camera must be 0 or 1, got " + std::to_string(camera));
  }
}

py::array frames_array(const std::vector<cv::Mat>& frames) {
  const int rows = frames[0].rows, cols = frames[0].cols;
  py::array_t<std::uint8_t> out(
      std::vector<py::ssize_t>{static_cast<py::ssize_t>(frames.size()), rows, cols});
  std::uint8_t* dst = out.mutable_data();
  for (const cv::Mat& frame : frames) {
    for (int r = 0; r < rows; ++r, dst += cols) std::memcpy(dst, frame.ptr(r), cols);
  }
  return out;
}

py::list distort_cameras(const std::array<SimCamera, 2>& cameras) {
  std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                     DistortCamera(cv::Size(0, 0), "cam1")};
  calibrated_pair(cameras, cams.data());
  py::list out;
  for (DistortCamera& cam : cams) out.append(py::cast(std::move(cam)));
  return out;
}

class Sensor {
 public:
  Sensor(int width, int height, const py::handle& focal_px, const py::handle& baseline_mm,
         const py::handle& projector_period_px)
      : rig_(make_rig(width, height, focal_px, baseline_mm, projector_period_px)), sensor_(rig_) {}

  py::array render_phase_shift(int camera, bool raw, const py::handle& light_values) {
    check_camera(camera);
    const SimLight light = light_from(light_values);
    std::vector<cv::Mat> frames;
    {
      py::gil_scoped_release release;
      frames = raw ? sensor_.render_phase_shift(default_raw_cameras(rig_)[camera], light)
                   : sensor_.render_phase_shift(camera, light);
    }
    return frames_array(frames);
  }

  py::array render_textured(int camera, bool raw, const py::handle& light_values) {
    check_camera(camera);
    const SimLight light = light_from(light_values);
    cv::Mat image;
    {
      py::gil_scoped_release release;
      image = raw ? sensor_.render_textured(default_raw_cameras(rig_)[camera], light)
                  : sensor_.render_textured(camera, light);
    }
    return to_array(image);
  }

  py::tuple ground_truth() {
    SimGroundTruth truth;
    {
      py::gil_scoped_release release;
      truth = sensor_.ground_truth();
    }
    py::array_t<double> q(std::vector<py::ssize_t>{4, 4});
    std::copy(truth.q.begin(), truth.q.end(), q.mutable_data());
    return py::make_tuple(to_array(truth.depth), q);
  }

  py::array_t<double> distance_to_scene(const py::handle& points) {
    const std::vector<cv::Vec3d> p = points3d(points, "points");
    py::array_t<double> out(static_cast<py::ssize_t>(p.size()));
    for (std::size_t i = 0; i < p.size(); ++i)
      out.mutable_data()[i] = sensor_.distance_to_scene(p[i]);
    return out;
  }

  py::list true_cameras() const { return distort_cameras(default_raw_cameras(rig_)); }

  void write_calibration(const py::handle& directory) const {
    const std::string dir = path_string(directory, "directory");
    if (!std::filesystem::is_directory(dir)) throw FileError(dir + ": no such directory");
    if (!write_calibration_directory(default_raw_cameras(rig_), dir)) {
      throw FileError(dir + ": the calibration files could not be written");
    }
  }

  py::dict rig() const {
    py::dict d;
    d["width"] = rig_.width;
    d["height"] = rig_.height;
    d["focal_px"] = rig_.focal_px;
    d["baseline_mm"] = rig_.baseline_mm;
    d["projector_period_px"] = rig_.projector_period_px;
    return d;
  }

 private:
  static SimRig make_rig(int width, int height, const py::handle& focal_px,
                         const py::handle& baseline_mm, const py::handle& period) {
    check_render_size(width, height);
    SimRig rig = SimRig::scaled(width, height);
    if (!focal_px.is_none()) rig.focal_px = positive(focal_px, "focal_px");
    if (!baseline_mm.is_none()) rig.baseline_mm = positive(baseline_mm, "baseline_mm");
    if (!period.is_none()) {
      rig.projector_period_px = int_value(period, "projector_period_px");
      if (rig.projector_period_px < 2) throw py::value_error("projector_period_px must be >= 2");
    }
    return rig;
  }

  SimRig rig_;
  VirtualSensor sensor_;
};

BoardFamily family_of(const std::string& name) {
  if (name == "pellux") return BoardFamily::kPellux;
  if (name == "quill") return BoardFamily::kQuill;
  throw py::value_error("family must be 'pellux' or 'quill', got '" + name + "'");
}

BoardImaging imaging_of(double noise, double blur) {
  if (!std::isfinite(noise) || noise < 0 || noise > 100)
    throw py::value_error("noise must be 0..100");
  if (!std::isfinite(blur) || blur < 0 || blur > 50) throw py::value_error("blur must be 0..50");
  BoardImaging imaging;
  imaging.noise_sigma = noise;
  imaging.blur_sigma_px = blur;
  return imaging;
}

py::dict board_truth(const SynthBoard& board) {
  BoardRecords records{board.pre, board.marker, board.board};
  py::dict d;
  d["family"] = family_name(board.family);
  d["params"] = records_dict(records);
  d["truth_index"] = to_array(board.truth_index);
  d["truth_position"] = to_array(board.truth_position);
  d["params_text"] = board.params_text;
  return d;
}

py::dict board_views_of(const std::string& family_value, int width, int height,
                        const py::handle& count_value, double noise, double blur) {
  const BoardFamily family = family_of(family_value);
  check_render_size(width, height);
  const std::vector<ViewAngles>& angles = board_views(family);
  const int count =
      count_value.is_none() ? static_cast<int>(angles.size()) : int_value(count_value, "views");
  if (count < 1 || count > static_cast<int>(angles.size())) {
    throw py::value_error("views must be 1.." + std::to_string(angles.size()));
  }
  BoardImaging imaging = imaging_of(noise, blur);
  const double focal = SimRig::scaled(width, height).focal_px;
  BoardCamera camera;
  camera.width = width;
  camera.height = height;
  camera.fx = camera.fy = focal;
  camera.cx = (width - 1) * 0.5;
  camera.cy = (height - 1) * 0.5;
  std::vector<BoardRendering> renderings;
  SynthBoard board;
  {
    py::gil_scoped_release release;
    board = synth_board(family, min_radius_for(BoardGrid::detection(), focal, kBoardDistanceMm));
    for (int view = 0; view < count; ++view) {
      const ViewAngles& a = angles[view];
      imaging.seed = 1 + view;
      renderings.push_back(render_board(
          board.layout,
          board_pose_facing(board.layout, kBoardDistanceMm, a.tilt_x, a.tilt_y, a.roll), camera,
          imaging));
    }
  }
  py::dict d = board_truth(board);
  py::list images, centres, ellipse_centres;
  for (const BoardRendering& r : renderings) {
    images.append(to_array(r.image));
    centres.append(to_array(r.centres));
    ellipse_centres.append(to_array(r.ellipse_centres));
  }
  d["images"] = images;
  d["centres"] = centres;
  d["ellipse_centres"] = ellipse_centres;
  return d;
}

py::dict calibration_set_of(const std::string& family_value, int width, int height, double noise,
                            double blur) {
  const BoardFamily family = family_of(family_value);
  check_render_size(width, height);
  const BoardImaging imaging = imaging_of(noise, blur);
  const SimRig rig = SimRig::scaled(width, height);
  const std::array<SimCamera, 2> cameras = default_raw_cameras(rig);
  SynthBoard board;
  std::vector<StereoBoardView> views;
  {
    py::gil_scoped_release release;
    const BoardGrid grid = BoardGrid::calibration();
    board = synth_board(family, min_radius_for(grid, rig.focal_px, kCalibrationFarMm), grid);
    const std::vector<BoardPose> poses = calibration_poses(
        cameras, board.layout, calibration_views(family), kCalibrationNearMm, kCalibrationFarMm);
    views = render_calibration_set(cameras, board.layout, poses, imaging);
  }
  py::dict d = board_truth(board);
  const char* const side[2] = {"left", "right"};
  for (int camera = 0; camera < 2; ++camera) {
    py::list images, centres;
    for (const StereoBoardView& view : views) {
      images.append(to_array(view.images[camera].image));
      centres.append(to_array(view.images[camera].ellipse_centres));
    }
    d[side[camera]] = images;
    d[(std::string(side[camera]) + "_centres").c_str()] = centres;
  }
  d["true_cameras"] = distort_cameras(cameras);
  d["circle_radius"] = board.layout.radius;
  return d;
}

py::dict calibration_error_of(const py::handle& cameras, int width, int height) {
  check_render_size(width, height);
  const std::vector<DistortCamera> cams = camera_pair(cameras, "cameras");
  const PairCalibrationError e =
      calibration_error(cams.data(), default_raw_cameras(SimRig::scaled(width, height)));
  py::list per_camera;
  for (const CameraCalibrationError& c : e.cameras) {
    py::dict d;
    d["fx"] = c.fx;
    d["fy"] = c.fy;
    d["cx"] = c.cx;
    d["cy"] = c.cy;
    d["pixel_rms"] = c.pixel_rms;
    d["pixel_max"] = c.pixel_max;
    per_camera.append(d);
  }
  py::dict d;
  d["cameras"] = per_camera;
  d["baseline"] = e.baseline;
  d["rotation_deg"] = e.rotation_deg;
  return d;
}

}  // namespace

void bind_sim(py::module_& m) {
  py::class_<Sensor>(m, "_VirtualSensor")
      .def(py::init<int, int, const py::handle&, const py::handle&, const py::handle&>(),
           py::arg("width") = 1280, py::arg("height") = 1024, py::arg("focal_px") = py::none(),
           py::arg("baseline_mm") = py::none(), py::arg("projector_period_px") = py::none())
      .def("render_phase_shift", &Sensor::render_phase_shift, py::arg("camera"),
           py::arg("raw") = false, py::arg("light") = py::none())
      .def("render_textured", &Sensor::render_textured, py::arg("camera"), py::arg("raw") = false,
           py::arg("light") = py::none())
      .def("ground_truth", &Sensor::ground_truth)
      .def("distance_to_scene", &Sensor::distance_to_scene, py::arg("points"))
      .def("true_cameras", &Sensor::true_cameras)
      .def("write_calibration_directory", &Sensor::write_calibration, py::arg("directory"))
      .def_property_readonly("rig", &Sensor::rig);

  m.def("_board_views", &board_views_of, py::arg("family"), py::arg("width"), py::arg("height"),
        py::arg("views"), py::arg("noise"), py::arg("blur"));
  m.def("_calibration_set", &calibration_set_of, py::arg("family"), py::arg("width"),
        py::arg("height"), py::arg("noise"), py::arg("blur"));
  m.def("_calibration_error", &calibration_error_of, py::arg("cameras"), py::arg("width"),
        py::arg("height"));
}

}  // namespace python
}  // namespace sl3d
