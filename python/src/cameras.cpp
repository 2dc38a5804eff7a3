// The camera models and the rectified stereo pair. Matrices are handed to
// Python as copies; cameras held by a StereoCamera are views that keep the
// pair alive.

#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/camera/camera_pinhole.h>
#include <sl3d/camera/camera_undistort.h>
#include <sl3d/camera/stereo_camera.h>

#include "arrays.h"
#include "bindings.h"
#include "cameras.h"
#include "params.h"

namespace sl3d {
namespace python {

cv::Size size_value(const py::handle& value, const char* what) {
  if (!py::isinstance<py::sequence>(value) || py::isinstance<py::str>(value) ||
      py::len(value) != 2) {
    throw py::type_error(std::string(what) + " must be (width, height)");
  }
  const py::sequence pair = py::reinterpret_borrow<py::sequence>(value);
  const int width = int_value(pair[0], std::string(what) + " width");
  const int height = int_value(pair[1], std::string(what) + " height");
  if (width < 1 || height < 1 || width > 100000 || height > 100000) {
    throw py::value_error(std::string(what) + " must be between 1 and 100000 pixels each way");
  }
  return {width, height};
}

std::vector<DistortCamera> camera_pair(const py::handle& value, const char* what) {
  if (!py::isinstance<py::sequence>(value) || py::len(value) != 2) {
    throw py::type_error(std::string(what) + " must be a sequence of two DistortCamera");
  }
  std::vector<DistortCamera> cams;
  for (const py::handle& item : py::reinterpret_borrow<py::sequence>(value)) {
    if (!py::isinstance<DistortCamera>(item)) {
      throw py::type_error(std::string(what) + " must hold DistortCamera objects");
    }
    cams.push_back(item.cast<const DistortCamera&>());
  }
  return cams;
}

namespace {

py::tuple size_tuple(const cv::Size& size) { return py::make_tuple(size.width, size.height); }

py::array_t<double> projection_rows(const PinHoleCamera& cam) {
  return py::array_t<double>(to_array(cv::Mat(cam.P(cv::Rect(0, 0, 4, 3))).clone()));
}

template <class Camera>
py::array_t<double> project(const Camera& cam, const py::handle& points) {
  std::vector<cv::Point2d> pixels;
  for (const cv::Vec3d& p : points3d(points, "points")) {
    pixels.push_back(cam.project_forw(cv::Point3d(p[0], p[1], p[2])));
  }
  return to_array(pixels);
}

std::unique_ptr<DistortCamera> make_distort_camera(const py::handle& size, const py::handle& K,
                                                   const py::handle& D, const py::handle& R,
                                                   const py::handle& T, const std::string& name) {
  auto cam = std::make_unique<DistortCamera>(size_value(size, "size"), name);
  cam->K = matrix(K, 3, 3, "K");
  const py::array_t<double> coefficients = real_array(D, "D");
  const std::vector<double> d(coefficients.data(), coefficients.data() + coefficients.size());
  if (d.size() != 4 && d.size() != 5 && d.size() != 8 && d.size() != 12 && d.size() != 14) {
    throw py::value_error("D must hold 4, 5, 8, 12 or 14 coefficients (OpenCV's order)");
  }
  for (double v : d) {
    if (!std::isfinite(v)) throw py::value_error("D must hold finite numbers");
  }
  cam->D = cv::Mat_<double>(d, true).reshape(1, 1);
  if (!R.is_none()) cam->R = matrix(R, 3, 3, "R");
  if (!T.is_none()) {
    const py::array_t<double> t = real_array(T, "T");
    if (t.size() != 3) throw py::value_error("T must hold 3 numbers");
    cam->T = cv::Mat(matrix(t.attr("reshape")(3, 1), 3, 1, "T"));
  }
  cam->compose();
  // compose leaves the extrinsic matrices alone; a camera built here is
  // consistent throughout.
  cam->RT = cv::Mat_<double>::eye(4, 4);
  cam->R.copyTo(cam->RT(cv::Rect(0, 0, 3, 3)));
  cam->T.copyTo(cam->RT(cv::Rect(3, 0, 1, 3)));
  cam->RT_inv = cam->RT.inv();
  return cam;
}

void check_camera_index(int camera) {
  if (camera != 0 && camera != 1) {
    throw py::value_error("camera must be 0 or 1, got " + std::to_string(camera));
  }
}

// A raw image of camera `camera` through the pair's maps, at the rectified
// size; where the maps do not reach, the camera's fill colour.
py::array rectify_image(StereoCamera& pair, const py::handle& image, int camera) {
  check_camera_index(camera);
  UndistortCamera& cam = pair.cameras[camera];
  if (cam.map1.empty() || cam.map2.empty()) {
    throw LibraryError("this stereo model has no rectification maps");
  }
  cv::Mat src = image_view(image, "image");
  if (pair.oldcamSize.area() > 0) {
    require_size(src, pair.oldcamSize.width, pair.oldcamSize.height, "image");
  }
  cv::Mat dst(cam.map1.size(), CV_8UC1, cam.fill);
  cam.remap(src, dst);
  return to_array(dst);
}

py::array_t<double> triangulate(StereoCamera& pair, const py::handle& left,
                                const py::handle& right) {
  const std::vector<cv::Point2d> l = points2d(left, "left");
  const std::vector<cv::Point2d> r = points2d(right, "right");
  if (l.size() != r.size()) throw py::value_error("left and right must hold as many points");
  py::array_t<double> out(std::vector<py::ssize_t>{static_cast<py::ssize_t>(l.size()), 3});
  double* dst = out.mutable_data();
  for (std::size_t i = 0; i < l.size(); ++i) {
    bool ok = false;
    const cv::Vec3d p = pair.get3dposition_P(l[i], r[i], &ok);
    for (int k = 0; k < 3; ++k) *dst++ = ok ? p[k] : NAN;
  }
  return out;
}

py::tuple triangulate_rays(StereoCamera& pair, const py::handle& left, const py::handle& right) {
  const std::vector<cv::Point2d> l = points2d(left, "left");
  const std::vector<cv::Point2d> r = points2d(right, "right");
  if (l.size() != r.size()) throw py::value_error("left and right must hold as many points");
  std::vector<cv::Point3d> points;
  py::array_t<double> gaps(static_cast<py::ssize_t>(l.size()));
  for (std::size_t i = 0; i < l.size(); ++i) {
    double gap = 0.0;
    const cv::Vec3d p = pair.get3dposition(l[i], r[i], gap);
    points.emplace_back(p[0], p[1], p[2]);
    gaps.mutable_data()[i] = gap;
  }
  return py::make_tuple(to_array(points), gaps);
}

py::array_t<double> reproject(StereoCamera& pair, const py::handle& pixels,
                              const py::handle& disparities) {
  if (pair.Q.rows != 4 || pair.Q.cols != 4) throw LibraryError("this stereo model has no Q matrix");
  const std::vector<cv::Point2d> p = points2d(pixels, "pixels");
  const py::array_t<double> d = real_array(disparities, "disparities");
  if (d.ndim() != 1 || static_cast<std::size_t>(d.size()) != p.size()) {
    throw py::value_error("disparities must be 1-D with one value per pixel");
  }
  std::vector<cv::Point3d> points;
  for (std::size_t i = 0; i < p.size(); ++i) {
    const cv::Vec3d v = pair.get3dposition_Q(p[i].x, p[i].y, d.data()[i]);
    points.emplace_back(v[0], v[1], v[2]);
  }
  return to_array(points);
}

std::string existing_directory(const py::handle& value) {
  const std::string dir = path_string(value, "directory");
  if (!std::filesystem::is_directory(dir)) throw FileError(dir + ": no such directory");
  return dir;
}

std::unique_ptr<StereoCamera> from_directory(const py::handle& dir_value, const py::handle& size) {
  const std::string dir = existing_directory(dir_value);
  const cv::Size s = size_value(size, "size");
  const cv::Scalar black(0, 0, 0, 0);
  std::unique_ptr<StereoCamera> pair;
  try {
    pair.reset(create_StereoCamera_from_Hmats(dir + "/hmat0.dat", dir + "/hmat1.dat",
                                              dir + "/rect.param", s, black, black));
    if (!pair) {
      pair.reset(create_StereoCamera({dir + "/cam0_param.yaml", dir + "/cam1_param.yaml"}, s, -1.0,
                                     0, black, black));
    }
  } catch (const cv::Exception& e) {
    throw LibraryError(dir + ": corrupt calibration file (" + e.err + ")");
  }
  if (!pair) {
    throw LibraryError(dir +
                       ": no usable calibration (neither hmat0.dat, hmat1.dat, rect.param "
                       "nor cam0_param.yaml, cam1_param.yaml load)");
  }
  return pair;
}

std::unique_ptr<StereoCamera> load_yaml(const py::handle& dir_value) {
  const std::string dir = existing_directory(dir_value);
  auto pair = std::make_unique<StereoCamera>(cv::Size(0, 0));
  bool ok = false;
  try {
    ok = pair->load(dir);
  } catch (const cv::Exception& e) {
    throw LibraryError(dir + ": corrupt stereo_param.yaml (" + e.err + ")");
  }
  if (!ok) throw LibraryError(dir + ": stereo_param.yaml or its maps do not load");
  return pair;
}

std::unique_ptr<StereoCamera> rectify_pair(const py::handle& cameras, double alpha, int flags,
                                           const py::handle& size) {
  std::vector<DistortCamera> cams = camera_pair(cameras, "cameras");
  const cv::Size new_size = size.is_none() ? cv::Size(0, 0) : size_value(size, "size");
  if (cams[0].size.area() == 0) throw py::value_error("cameras[0] has no image size");
  const cv::Scalar black(0, 0, 0, 0);
  return std::make_unique<StereoCamera>(cams.data(), alpha, flags, new_size, black, black);
}

void save_yaml(StereoCamera& pair, const py::handle& dir_value) {
  const std::string dir = existing_directory(dir_value);
  if (!pair.save(dir)) throw FileError(dir + ": the stereo model could not be written");
}

void save_binary(StereoCamera& pair, const py::handle& dir_value) {
  const std::string dir = existing_directory(dir_value);
  if (pair.cameras[0].map1.empty())
    throw LibraryError("this stereo model has no rectification maps");
  if (!store_StereoCamera_to_Hmats(&pair, dir + "/hmat0.dat", dir + "/hmat1.dat",
                                   dir + "/rect.param")) {
    throw FileError(dir + ": the binary form could not be written");
  }
}

}  // namespace

void bind_cameras(py::module_& m) {
  py::class_<PinHoleCamera>(m, "PinHoleCamera",
                            "A pinhole camera: x_cam = R x_world + T, pixel = P (x, 1).")
      .def_property_readonly("size", [](const PinHoleCamera& c) { return size_tuple(c.size); })
      .def_readonly("name", &PinHoleCamera::name)
      .def_property_readonly("K", [](const PinHoleCamera& c) { return to_array(cv::Mat(c.K)); })
      .def_property_readonly("R", [](const PinHoleCamera& c) { return to_array(cv::Mat(c.R)); })
      .def_property_readonly("T", [](const PinHoleCamera& c) { return to_vector(c.T); })
      .def_property_readonly("P", &projection_rows, "The 3x4 projection matrix K [R | T].")
      .def_property_readonly("center",
                             [](const PinHoleCamera& c) { return to_vector(c.get_center()); })
      .def("project", &project<PinHoleCamera>, py::arg("points"),
           "Pixels (n, 2) of world points (n, 3).");

  py::class_<DistortCamera, PinHoleCamera>(m, "DistortCamera",
                                           "A calibrated camera with lens distortion D.")
      .def(py::init(&make_distort_camera), py::arg("size"), py::arg("K"), py::arg("D"),
           py::arg("R") = py::none(), py::arg("T") = py::none(), py::arg("name") = "cam")
      .def_property_readonly("D", [](const DistortCamera& c) { return to_vector(c.D); })
      .def("project", &project<DistortCamera>, py::arg("points"),
           "Pixels (n, 2) of world points (n, 3), through the lens.");

  py::class_<UndistortCamera, PinHoleCamera>(m, "UndistortCamera",
                                             "A rectified camera of a stereo pair.")
      .def_property_readonly("roi",
                             [](const UndistortCamera& c) {
                               return py::make_tuple(c.roi.x, c.roi.y, c.roi.width, c.roi.height);
                             })
      .def_property_readonly("has_maps", [](const UndistortCamera& c) { return !c.map1.empty(); });

  py::class_<StereoCamera>(m, "StereoCamera", "A calibrated, rectified camera pair.")
      .def(py::init(&rectify_pair), py::arg("cameras"), py::arg("alpha") = -1.0,
           py::arg("flags") = 0, py::arg("size") = py::none())
      .def_static("from_directory", &from_directory, py::arg("directory"), py::arg("size"))
      .def_static("load", &load_yaml, py::arg("directory"))
      .def_property_readonly("Q", [](const StereoCamera& p) { return to_array(p.Q); })
      .def_readonly("name", &StereoCamera::name)
      .def_property_readonly("raw_size",
                             [](const StereoCamera& p) { return size_tuple(p.oldcamSize); })
      .def_property_readonly("size",
                             [](const StereoCamera& p) { return size_tuple(p.cameras[0].size); })
      .def_property_readonly("cam0_R2",
                             [](const StereoCamera& p) { return to_array(cv::Mat(p.cam0_R2)); })
      .def_property_readonly("cam1_R2",
                             [](const StereoCamera& p) { return to_array(cv::Mat(p.cam1_R2)); })
      .def_property_readonly("camdis", [](const StereoCamera& p) { return to_vector(p.camdis); })
      .def_property_readonly(
          "cameras",
          [](py::object self) {
            StereoCamera& pair = self.cast<StereoCamera&>();
            return py::make_tuple(
                py::cast(&pair.cameras[0], py::return_value_policy::reference_internal, self),
                py::cast(&pair.cameras[1], py::return_value_policy::reference_internal, self));
          })
      .def("rectify", &rectify_image, py::arg("image"), py::arg("camera"))
      .def("triangulate", &triangulate, py::arg("left"), py::arg("right"))
      .def("triangulate_rays", &triangulate_rays, py::arg("left"), py::arg("right"))
      .def("reproject", &reproject, py::arg("pixels"), py::arg("disparities"))
      .def("save", &save_yaml, py::arg("directory"))
      .def("store_hmats", &save_binary, py::arg("directory"));
}

}  // namespace python
}  // namespace sl3d
