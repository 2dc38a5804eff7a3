// Board recognition, the pair calibration and the calibration-directory
// writer. Recognizer parameters travel as three dicts keyed by the
// records' field names; recognized points are (n, 2) float32 arrays with
// NaN for circles not found.

#include <cfloat>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>
#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/calibrator/calibration_directory.h>
#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/calibrator.h>
#include <sl3d/calibrator/marker_centres.h>
#include <sl3d/calibrator/precise_calibration.h>

#include "arrays.h"
#include "bindings.h"
#include "boards.h"
#include "cameras.h"
#include "params.h"

namespace sl3d {
namespace python {

namespace {

enum class Kind { kBool, kInt, kReal };

struct Key {
  const char* name;
  Kind kind;
};

const std::vector<Key> kPreKeys = {
    {"do_reverse_bw", Kind::kBool},   {"do_equalize_hist", Kind::kBool},
    {"do_smoothing", Kind::kBool},    {"bin_type", Kind::kInt},
    {"bin_param0", Kind::kInt},       {"bin_param1", Kind::kInt},
    {"gamma_correction", Kind::kReal}};
const std::vector<Key> kMarkerKeys = {{"fitscore", Kind::kReal},
                                      {"n_minimum", Kind::kInt},
                                      {"max_radius", Kind::kReal},
                                      {"min_radius", Kind::kReal},
                                      {"debug_show_scale", Kind::kReal}};
const std::vector<Key> kBoardKeys = {
    {"unit_length", Kind::kReal}, {"n_circles_x", Kind::kInt},
    {"n_circles_y", Kind::kInt},  {"origin_x", Kind::kInt},
    {"origin_y", Kind::kInt},     {"distance_between_circles", Kind::kReal}};

constexpr long kMaxMarkers = 1000000;

// The key map a record's set() reads, from a dict (None: no changes).
std::map<std::string, double> key_map(const py::handle& values, const std::vector<Key>& keys,
                                      const char* record) {
  std::map<std::string, double> out;
  if (values.is_none()) return out;
  if (!py::isinstance<py::dict>(values)) {
    throw py::type_error(std::string(record) + " parameters must be a dict");
  }
  for (const auto& item : py::reinterpret_borrow<py::dict>(values)) {
    const std::string name = key_name(item.first);
    const Key* key = nullptr;
    std::vector<std::string> names;
    for (const Key& k : keys) {
      names.push_back(k.name);
      if (name == k.name) key = &k;
    }
    if (key == nullptr) {
      throw py::key_error("unknown " + std::string(record) + " key '" + name +
                          "' (known: " + joined_names(names) + ")");
    }
    if (key->kind == Kind::kBool) {
      const double v = py::isinstance<py::bool_>(item.second) ? item.second.cast<bool>()
                                                              : real_value(item.second, name);
      if (v != 0.0 && v != 1.0) throw py::value_error("'" + name + "' must be 0 or 1");
      out[name] = v;
    } else {
      out[name] =
          key->kind == Kind::kInt ? int_value(item.second, name) : real_value(item.second, name);
    }
  }
  return out;
}

// Values the recognizer would accept but cannot work with: it checks only
// unit_length and the counts.
void check_records(const BoardRecords& r) {
  const CalibBoardParams& b = r.board;
  if (!(b.unit_length > 0.0)) throw py::value_error("unit_length must be > 0");
  if (b.n_circles_x < 1 || b.n_circles_y < 1) {
    throw py::value_error("n_circles_x and n_circles_y must be >= 1");
  }
  if (static_cast<long>(b.n_circles_x) * b.n_circles_y > kMaxMarkers) {
    throw py::value_error("a board of more than a million circles is not supported");
  }
  if (b.origin_x < 0 || b.origin_x >= b.n_circles_x || b.origin_y < 0 ||
      b.origin_y >= b.n_circles_y) {
    throw py::value_error("origin_x must be 0..n_circles_x-1 and origin_y 0..n_circles_y-1");
  }
  if (r.pre.bin_type < 0 || r.pre.bin_type > 2) throw py::value_error("bin_type must be 0, 1 or 2");
  if (r.pre.bin_type == 2 && (r.pre.bin_param0 < 3 || r.pre.bin_param0 % 2 == 0)) {
    throw py::value_error("bin_type 2 needs an odd bin_param0 >= 3 (the block size)");
  }
  if (!(r.pre.gamma_correction > 0.0)) throw py::value_error("gamma_correction must be > 0");
  if (r.marker.debug_show_scale != 0.0) {
    throw py::value_error("debug_show_scale must be 0: the bindings open no windows");
  }
}

py::dict pre_dict(const PreProcParams& p) {
  py::dict d;
  d["do_reverse_bw"] = p.do_reverse_bw;
  d["do_equalize_hist"] = p.do_equalize_hist;
  d["do_smoothing"] = p.do_smoothing;
  d["bin_type"] = p.bin_type;
  d["bin_param0"] = p.bin_param0;
  d["bin_param1"] = p.bin_param1;
  d["gamma_correction"] = p.gamma_correction;
  return d;
}

py::dict marker_dict(const CircleMarkerParams& p) {
  py::dict d;
  d["fitscore"] = p.fitscore;
  d["n_minimum"] = p.n_minimum;
  d["max_radius"] = p.max_radius;
  d["min_radius"] = p.min_radius;
  d["debug_show_scale"] = p.debug_show_scale;
  return d;
}

py::dict board_dict(const CalibBoardParams& p) {
  py::dict d;
  d["unit_length"] = p.unit_length;
  d["n_circles_x"] = p.n_circles_x;
  d["n_circles_y"] = p.n_circles_y;
  d["origin_x"] = p.origin_x;
  d["origin_y"] = p.origin_y;
  d["distance_between_circles"] = p.distance_between_circles;
  return d;
}

int board_type(const std::string& family) {
  if (family == "pellux") return 0;
  if (family == "quill") return 1;
  throw py::value_error("family must be 'pellux' (three rings) or 'quill' (one ring), got '" +
                        family + "'");
}

struct RecognizerDeleter {
  void operator()(iCalibBoardRecognizer* r) const {
    if (r != nullptr) r->destroy();
  }
};

// Recognition shared by the recognizer and the calibrator, which owns its
// own recognizer.
py::tuple recognize_with(iCalibBoardRecognizer& recognizer, std::mutex& lock,
                         const py::handle& image) {
  cv::Mat copy = image_copy(image, "image");  // the caller may change its array meanwhile
  std::vector<cv::Point2f> points;
  std::string name;
  const int code = without_gil(lock, [&] {
    const int result = recognizer.recognize(copy, points);
    name = recognizer.get_error_name(result);
    return result;
  });
  if (code != 0) points.clear();
  return py::make_tuple(code, name, to_array(points, true));
}

// One image's marker list: empty, or one entry per marker index.
std::vector<cv::Point2f> marker_list(const py::handle& value, long n_markers, const char* what) {
  std::vector<cv::Point2f> points = points2f(value, what, true);
  if (!points.empty() && static_cast<long>(points.size()) != n_markers) {
    throw py::value_error(std::string(what) + " must hold one row per circle of the board (" +
                          std::to_string(n_markers) + ") or none, got " +
                          std::to_string(points.size()));
  }
  return points;
}

py::array_t<float> positions_array(const std::vector<cv::Point3f>& positions) {
  py::array_t<float> out(std::vector<py::ssize_t>{static_cast<py::ssize_t>(positions.size()), 3});
  float* dst = out.mutable_data();
  for (const cv::Point3f& p : positions) {
    *dst++ = p.x;
    *dst++ = p.y;
    *dst++ = p.z;
  }
  return out;
}

class Recognizer {
 public:
  Recognizer(const std::string& family, const py::handle& pre, const py::handle& marker,
             const py::handle& board)
      : family_(family) {
    if (board_type(family) == 0) {
      recognizer_.reset(CreateCalibBoardRecognizer());
    } else {
      recognizer_.reset(new (std::nothrow) QuillCalibBoardRecognizer());
    }
    if (!recognizer_) throw std::bad_alloc();
    if (!board.is_none()) set_parameters(pre, marker, board);
  }

  void set_parameters(const py::handle& pre, const py::handle& marker, const py::handle& board) {
    BoardRecords records = records_;
    update_records(records, pre, marker, board);
    const bool ok = without_gil(lock_, [&] {
      return recognizer_->set_parameters(records.pre, records.marker, records.board);
    });
    if (!ok) throw py::value_error("the recognizer refused the board parameters");
    records_ = records;
    configured_ = true;
  }

  py::tuple recognize(const py::handle& image) {
    require_configured();
    return recognize_with(*recognizer_, lock_, image);
  }

  py::tuple corresponding_points(const py::handle& points0, const py::handle& points1) {
    require_configured();
    const long n = n_markers(records_);
    const std::vector<cv::Point2f> p0 = marker_list(points0, n, "points");
    std::vector<cv::Point2f> out0, out1;
    std::vector<cv::Point3f> out3d;
    if (points1.is_none()) {
      without_gil(lock_, [&] { recognizer_->corresponding_points(p0, out0, out3d); });
      return py::make_tuple(to_array(out0, false), positions_array(out3d));
    }
    const std::vector<cv::Point2f> p1 = marker_list(points1, n, "points1");
    if (p0.empty() || p1.empty())
      return py::make_tuple(to_array(out0, false), to_array(out1, false), positions_array(out3d));
    without_gil(lock_, [&] { recognizer_->corresponding_points(p0, p1, out0, out1, out3d); });
    return py::make_tuple(to_array(out0, false), to_array(out1, false), positions_array(out3d));
  }

  std::string error_name(int code) {
    return without_gil(lock_, [&] { return recognizer_->get_error_name(code); });
  }

  py::tuple image_size() {
    const cv::Size size = without_gil(lock_, [&] { return recognizer_->image_size(); });
    return py::make_tuple(size.width, size.height);
  }

  long markers() const { return configured_ ? n_markers(records_) : 0; }

  int marker_index(int gx, int gy) {
    require_configured();
    const CalibBoardParams& b = records_.board;
    if (b.origin_x - gx < 0 || b.origin_x - gx >= b.n_circles_x || b.origin_y - gy < 0 ||
        b.origin_y - gy >= b.n_circles_y) {
      throw py::index_error("grid position outside the board");
    }
    return without_gil(lock_, [&] { return recognizer_->get_marker_index(cv::Point(gx, gy)); });
  }

  py::array_t<float> position(long index) {
    require_configured();
    if (index < 0 || index >= n_markers(records_)) throw py::index_error("no such marker index");
    const cv::Point3f p =
        without_gil(lock_, [&] { return recognizer_->get_3d_position(static_cast<int>(index)); });
    py::array_t<float> out(3);
    out.mutable_data()[0] = p.x;
    out.mutable_data()[1] = p.y;
    out.mutable_data()[2] = p.z;
    return out;
  }

  py::object result_image() {
    cv::Mat image;
    without_gil(lock_, [&] { recognizer_->copy_result_image(image); });
    if (image.empty()) return py::none();
    return to_array(image);
  }

  py::dict params() const { return records_dict(records_); }
  const std::string& family() const { return family_; }

 private:
  void require_configured() const {
    if (!configured_) {
      throw LibraryError("the recognizer has no board yet: set_parameters(board={...}) first");
    }
  }

  std::string family_;
  std::unique_ptr<iCalibBoardRecognizer, RecognizerDeleter> recognizer_;
  BoardRecords records_;
  bool configured_ = false;
  std::mutex lock_;
};

class Calibrator {
 public:
  Calibrator(const std::string& family, const py::handle& pre, const py::handle& marker,
             const py::handle& board, int flags, double focal_length, const py::handle& image_size)
      : family_(family), calib_(board_type(family)) {
    update_records(records_, pre, marker, board);
    if (!image_size.is_none()) {
      const cv::Size size = size_value(image_size, "image_size");
      records_.marker.image_width = size.width;
      records_.marker.image_height = size.height;
    }
    if (!std::isfinite(focal_length) || focal_length < 0.0) {
      throw py::value_error("focal_length must be finite and >= 0");
    }
    CameraCalibParams cp;
    cp.flags = flags;
    cp.focal_length = focal_length;
    if (!calib_.set_parameters(cp, records_.board, records_.marker, records_.pre)) {
      throw py::value_error("the recognizer refused the board parameters");
    }
  }

  py::tuple recognize(const py::handle& image) {
    return recognize_with(*calib_.recognizer, lock_, image);
  }

  py::tuple exec(const py::handle& left, const py::handle& right) {
    const cv::Size size = without_gil(lock_, [&] { return calib_.recognizer->image_size(); });
    if (size.area() == 0) {
      throw LibraryError(
          "the image size is unknown: recognize the images with this calibrator "
          "or give image_size");
    }
    std::vector<std::vector<std::vector<cv::Point2f>>> points = {views(left, "left"),
                                                                 views(right, "right")};
    std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                       DistortCamera(cv::Size(0, 0), "cam1")};
    std::vector<std::vector<double>> errors(2);
    double rms = 0.0;
    const int code = without_gil(lock_, [&] { return calib_.exec(cams, points, errors, &rms); });
    if (code == 1) {
      throw CalibrationFailure(1,
                               "a camera could not be calibrated: it needs views with at "
                               "least 5 markers found");
    }
    if (code != 0) {
      throw CalibrationFailure(code,
                               "the pair could not be calibrated: no view has markers "
                               "found in both images");
    }
    py::list cameras;
    for (DistortCamera& cam : cams) cameras.append(py::cast(std::move(cam)));
    return py::make_tuple(cameras, py::make_tuple(to_array(errors[0]), to_array(errors[1])), rms);
  }

  // calibrate_stereo_precisely: the markers measured again from the
  // images and the calibration refined for the circle-centre bias.
  py::tuple exec_precisely(const py::handle& left, const py::handle& right,
                           const py::handle& left_images, const py::handle& right_images,
                           double circle_radius, bool remeasure, bool refine) {
    if (refine && !(std::isfinite(circle_radius) && circle_radius > 0.0)) {
      throw py::value_error("circle_radius must be above 0 to refine (or refine=False)");
    }
    std::vector<std::vector<std::vector<cv::Point2f>>> points = {views(left, "left"),
                                                                 views(right, "right")};
    std::vector<std::vector<cv::Mat>> images = {image_list(left_images, "left_images"),
                                                image_list(right_images, "right_images")};
    for (int c = 0; c < 2; ++c) {
      if (images[c].size() != points[c].size()) {
        throw py::value_error("give one image per point array");
      }
    }
    PreciseCalibrationOptions options;
    options.remeasure = remeasure;
    options.refine = refine;
    options.refinement.circle_radius = circle_radius;
    std::vector<DistortCamera> cams = {DistortCamera(cv::Size(0, 0), "cam0"),
                                       DistortCamera(cv::Size(0, 0), "cam1")};
    std::vector<std::vector<double>> errors(2);
    const PreciseCalibration r = without_gil(lock_, [&] {
      return calibrate_stereo_precisely(calib_, images, points, cams, errors, options);
    });
    if (r.code == 1 || r.code == 2) {
      throw CalibrationFailure(r.code, r.code == 1 ? "a camera could not be calibrated"
                                                   : "the pair could not be calibrated");
    }
    if (r.code != 0) throw LibraryError("calibration failed: " + r.message);
    py::list cameras;
    for (DistortCamera& cam : cams) cameras.append(py::cast(std::move(cam)));
    const double rms = r.refinement.steps.empty() ? r.first_rms : r.refinement.steps.back().rms;
    return py::make_tuple(cameras, py::make_tuple(to_array(errors[0]), to_array(errors[1])), rms,
                          precise_report(r));
  }

  py::tuple image_size() {
    const cv::Size size = without_gil(lock_, [&] { return calib_.recognizer->image_size(); });
    return py::make_tuple(size.width, size.height);
  }

  py::dict params() const { return records_dict(records_); }
  const std::string& family() const { return family_; }

 private:
  static std::vector<cv::Mat> image_list(const py::handle& value, const char* what) {
    if (!py::isinstance<py::sequence>(value) || py::isinstance<py::str>(value)) {
      throw py::type_error(std::string(what) + " must be a list of images");
    }
    std::vector<cv::Mat> out;
    for (const py::handle& item : py::reinterpret_borrow<py::sequence>(value)) {
      out.push_back(image_copy(item, what));
    }
    return out;
  }

  static py::dict precise_report(const PreciseCalibration& r) {
    py::dict d;
    d["remeasured"] = r.remeasured;
    d["unmeasured"] = r.unmeasured;
    d["mean_shift_px"] = r.mean_shift_px;
    d["max_shift_px"] = r.max_shift_px;
    d["mean_residual_px"] = r.mean_residual_px;
    d["first_rms"] = r.first_rms;
    py::list left_out;
    for (const LeftOutView& v : r.left_out) left_out.append(py::make_tuple(v.view, v.error_px));
    d["left_out_views"] = left_out;
    d["converged"] = r.refinement.converged;
    py::list steps;
    for (const CentreRefinementStep& s : r.refinement.steps) {
      py::dict step;
      step["rms"] = s.rms;
      step["intrinsics_change_px"] = s.intrinsics_change_px;
      step["mean_offset_px"] = s.mean_offset_px;
      step["max_offset_px"] = s.max_offset_px;
      steps.append(step);
    }
    d["steps"] = steps;
    return d;
  }

  std::vector<std::vector<cv::Point2f>> views(const py::handle& value, const char* what) {
    if (!py::isinstance<py::sequence>(value) || py::isinstance<py::str>(value) ||
        py::isinstance<py::array>(value)) {
      throw py::type_error(std::string(what) + " must be a list of point arrays, one per image");
    }
    std::vector<std::vector<cv::Point2f>> out;
    for (const py::handle& item : py::reinterpret_borrow<py::sequence>(value)) {
      out.push_back(marker_list(item, n_markers(records_), what));
    }
    return out;
  }

  std::string family_;
  StereoCalib calib_;
  BoardRecords records_;
  std::mutex lock_;
};

void store_directory(const py::handle& cameras, const py::handle& directory, bool files_only) {
  const std::vector<DistortCamera> cams = camera_pair(cameras, "cameras");
  const std::string dir = path_string(directory, "directory");
  if (!std::filesystem::is_directory(dir)) throw FileError(dir + ": no such directory");
  for (const DistortCamera& cam : cams) {
    if (cam.size.area() == 0) throw py::value_error("the cameras must have an image size");
  }
  bool ok = false;
  try {
    ok = files_only ? store_camera_files(cams.data(), dir)
                    : store_calibration_directory(cams.data(), dir);
  } catch (const cv::Exception& e) {
    throw LibraryError("the cameras cannot be rectified as a pair (" + e.err + ")");
  }
  if (!ok) throw FileError(dir + ": the calibration files could not be written");
}

// measure_marker_centres on a copy of one image's marker list.
py::tuple measure_centres(const py::handle& image, const py::handle& points_value,
                          const py::handle& grid_value) {
  const cv::Mat copy = image_copy(image, "image");
  const cv::Size grid = size_value(grid_value, "grid");
  std::vector<cv::Point2f> points = points2f(points_value, "points", true);
  if (static_cast<long>(points.size()) < static_cast<long>(grid.area())) {
    throw py::value_error("points must hold one row per circle of the grid (" +
                          std::to_string(grid.area()) + ")");
  }
  MarkerCentreReport report;
  {
    py::gil_scoped_release release;
    report = measure_marker_centres(copy, grid, points);
  }
  if (!report.ok) throw py::value_error(report.message);
  py::dict d;
  d["remeasured"] = report.remeasured;
  d["unmeasured"] = report.unmeasured;
  d["dark_markers"] = report.dark_markers;
  d["mean_shift_px"] = report.mean_shift_px;
  d["max_shift_px"] = report.max_shift_px;
  d["mean_residual_px"] = report.mean_residual_px;
  return py::make_tuple(to_array(points, true), d);
}

}  // namespace

long n_markers(const BoardRecords& records) {
  return static_cast<long>(records.board.n_circles_x) * records.board.n_circles_y;
}

void update_records(BoardRecords& records, const py::handle& pre, const py::handle& marker,
                    const py::handle& board) {
  std::map<std::string, double> pre_keys = key_map(pre, kPreKeys, "pre-processing");
  std::map<std::string, double> marker_keys = key_map(marker, kMarkerKeys, "circle search");
  std::map<std::string, double> board_keys = key_map(board, kBoardKeys, "board");
  BoardRecords updated = records;
  updated.pre.set(pre_keys);
  updated.marker.set(marker_keys);
  updated.board.set(board_keys);
  check_records(updated);
  records = updated;
}

py::dict records_dict(const BoardRecords& records) {
  py::dict d;
  d["pre"] = pre_dict(records.pre);
  d["marker"] = marker_dict(records.marker);
  d["board"] = board_dict(records.board);
  return d;
}

void bind_boards(py::module_& m) {
  py::class_<Recognizer>(m, "BoardRecognizer", R"doc(
Recognizes a circle-marker calibration board of one family ('pellux': three
ring base markers, 'quill': one) in 8-bit grey images. Parameters are dicts
keyed by the fields of the pre-processing, circle-search and board records.
recognize releases the GIL; one recognizer serves one call at a time.)doc")
      .def(py::init<const std::string&, const py::handle&, const py::handle&, const py::handle&>(),
           py::arg("family") = "pellux", py::arg("pre") = py::none(),
           py::arg("marker") = py::none(), py::arg("board") = py::none())
      .def_property_readonly("family", &Recognizer::family)
      .def("set_parameters", &Recognizer::set_parameters, py::arg("pre") = py::none(),
           py::arg("marker") = py::none(), py::arg("board") = py::none())
      .def_property_readonly("params", &Recognizer::params)
      .def("_recognize", &Recognizer::recognize, py::arg("image"))
      .def("corresponding_points", &Recognizer::corresponding_points, py::arg("points"),
           py::arg("points1") = py::none())
      .def("error_name", &Recognizer::error_name, py::arg("code"))
      .def_property_readonly("image_size", &Recognizer::image_size)
      .def_property_readonly("n_markers", &Recognizer::markers)
      .def("marker_index", &Recognizer::marker_index, py::arg("gx"), py::arg("gy"))
      .def("position", &Recognizer::position, py::arg("index"))
      .def("result_image", &Recognizer::result_image);

  py::class_<Calibrator>(m, "_StereoCalib")
      .def(py::init<const std::string&, const py::handle&, const py::handle&, const py::handle&,
                    int, double, const py::handle&>(),
           py::arg("family") = "pellux", py::arg("pre") = py::none(),
           py::arg("marker") = py::none(), py::arg("board") = py::none(), py::arg("flags") = 0,
           py::arg("focal_length") = 0.0, py::arg("image_size") = py::none())
      .def_property_readonly("family", &Calibrator::family)
      .def_property_readonly("params", &Calibrator::params)
      .def_property_readonly("image_size", &Calibrator::image_size)
      .def("_recognize", &Calibrator::recognize, py::arg("image"))
      .def("_exec", &Calibrator::exec, py::arg("left"), py::arg("right"))
      .def("_exec_precisely", &Calibrator::exec_precisely, py::arg("left"), py::arg("right"),
           py::arg("left_images"), py::arg("right_images"), py::arg("circle_radius"),
           py::arg("remeasure"), py::arg("refine"));

  m.def("recommended_calibration_flags", &recommended_calibration_flags,
        py::arg("wide_angle") = false,
        "The OpenCV flags a pair calibration should use unless the lens asks for others: "
        "cv.CALIB_FIX_K3, or cv.CALIB_RATIONAL_MODEL for a wide-angle lens.");
  m.def("_measure_marker_centres", &measure_centres, py::arg("image"), py::arg("points"),
        py::arg("grid"));

  m.def(
      "store_calibration_directory",
      [](const py::handle& cameras, const py::handle& dir) {
        store_directory(cameras, dir, false);
      },
      py::arg("cameras"), py::arg("directory"),
      "Writes the calibrated pair as a calibration directory (all three forms).");
  m.def(
      "store_camera_files",
      [](const py::handle& cameras, const py::handle& dir) { store_directory(cameras, dir, true); },
      py::arg("cameras"), py::arg("directory"), "Writes cam0_param.yaml and cam1_param.yaml only.");
}

}  // namespace python
}  // namespace sl3d
