#include "arrays.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>

namespace sl3d {
namespace python {

namespace {

std::string type_name(const py::handle& value) {
  return py::str(py::type::handle_of(value).attr("__name__"));
}

std::string shape_text(const py::array& a) {
  std::string text = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) {
    text += std::to_string(a.shape(i));
    text += a.ndim() == 1 ? "," : (i + 1 < a.ndim() ? ", " : "");
  }
  return text + ")";
}

std::string dtype_text(const py::array& a) { return py::str(a.dtype()); }

py::array ndarray(const py::handle& value, const char* what) {
  if (!py::isinstance<py::array>(value)) {
    throw py::type_error(std::string(what) + " must be a numpy array, got " + type_name(value));
  }
  return py::reinterpret_borrow<py::array>(value);
}

void check_image(const py::array& a, const char* what) {
  const std::string name(what);
  if (a.dtype().kind() != 'u' || a.itemsize() != 1) {
    throw py::type_error(name + " must have dtype uint8, got " + dtype_text(a));
  }
  if (a.ndim() != 2) {
    throw py::value_error(name + " must be 2-D (height, width), got shape " + shape_text(a));
  }
  if (a.shape(0) == 0 || a.shape(1) == 0) {
    throw py::value_error(name + " is empty, shape " + shape_text(a));
  }
  if (a.shape(0) > INT_MAX || a.shape(1) > INT_MAX) {
    throw py::value_error(name + " is too large, shape " + shape_text(a));
  }
  if (a.strides(1) != 1 || a.strides(0) < a.shape(1)) {
    throw py::value_error(name +
                          " must have rows contiguous in memory (strides (step, 1), "
                          "step >= width); numpy.ascontiguousarray(" +
                          name + ") gives such a copy");
  }
}

// Largest magnitude that still converts to a finite float.
bool fits_float(double v) { return std::isfinite(v) && std::fabs(v) <= FLT_MAX; }

}  // namespace

cv::Mat image_view(const py::handle& image, const char* what, bool writable) {
  const py::array a = ndarray(image, what);
  check_image(a, what);
  if (writable && !a.writeable()) {
    throw py::value_error(std::string(what) + " is read-only, but the result is written into it");
  }
  return cv::Mat(static_cast<int>(a.shape(0)), static_cast<int>(a.shape(1)), CV_8UC1,
                 const_cast<void*>(a.data()), static_cast<std::size_t>(a.strides(0)));
}

cv::Mat image_copy(const py::handle& image, const char* what) {
  return image_view(image, what).clone();
}

std::vector<std::uint8_t> byte_values(const py::handle& value, const char* what) {
  const py::array a = ndarray(value, what);
  if (a.dtype().kind() != 'u' || a.itemsize() != 1) {
    throw py::type_error(std::string(what) + " must have dtype uint8, got " + dtype_text(a));
  }
  if (a.ndim() != 1) {
    throw py::value_error(std::string(what) + " must be 1-D, got shape " + shape_text(a));
  }
  const auto contiguous = py::array_t<std::uint8_t, py::array::c_style>::ensure(a);
  return std::vector<std::uint8_t>(contiguous.data(), contiguous.data() + contiguous.size());
}

void require_size(const cv::Mat& image, int width, int height, const char* what) {
  if (image.cols == width && image.rows == height) return;
  throw py::value_error(std::string(what) + " has shape (" + std::to_string(image.rows) + ", " +
                        std::to_string(image.cols) + "), expected (" + std::to_string(height) +
                        ", " + std::to_string(width) + ")");
}

py::array_t<double> real_array(const py::handle& value, const char* what) {
  const std::string name(what);
  py::array a;
  try {
    a = py::module_::import("numpy").attr("asarray")(value);
  } catch (py::error_already_set& e) {
    throw py::type_error(name + " must be an array of numbers (" + e.what() + ")");
  }
  const char kind = a.dtype().kind();
  if (kind != 'i' && kind != 'u' && kind != 'f') {
    throw py::type_error(name + " must hold real numbers, got dtype " + dtype_text(a));
  }
  auto converted = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
  if (!converted) throw py::type_error(name + " cannot be converted to float64");
  return converted;
}

cv::Mat_<double> matrix(const py::handle& value, int rows, int cols, const char* what) {
  const py::array_t<double> a = real_array(value, what);
  if (a.ndim() != 2 || a.shape(0) != rows || a.shape(1) != cols) {
    throw py::value_error(std::string(what) + " must have shape (" + std::to_string(rows) + ", " +
                          std::to_string(cols) + "), got " + shape_text(a));
  }
  cv::Mat_<double> m(rows, cols);
  const double* data = a.data();
  for (int i = 0; i < rows * cols; ++i) {
    if (!std::isfinite(data[i])) {
      throw py::value_error(std::string(what) + " must hold finite numbers");
    }
    m(i / cols, i % cols) = data[i];
  }
  return m;
}

namespace {

// The rows of an (n, columns) real array; an empty sequence has none.
py::array_t<double> point_rows(const py::handle& value, int columns, const char* what) {
  const py::array_t<double> a = real_array(value, what);
  if (a.size() == 0 && !(a.ndim() == 2 && a.shape(1) != columns)) return a;
  if (a.ndim() != 2 || a.shape(1) != columns) {
    throw py::value_error(std::string(what) + " must have shape (n, " + std::to_string(columns) +
                          "), got " + shape_text(a));
  }
  return a;
}

}  // namespace

std::vector<cv::Point2f> points2f(const py::handle& value, const char* what, bool nan_is_missing) {
  const py::array_t<double> a = point_rows(value, 2, what);
  std::vector<cv::Point2f> points;
  points.reserve(static_cast<std::size_t>(a.size() / 2));
  const double* data = a.data();
  for (py::ssize_t i = 0; i + 1 < a.size(); i += 2) {
    const double x = data[i];
    const double y = data[i + 1];
    if (nan_is_missing && (std::isnan(x) || std::isnan(y))) {
      points.emplace_back(FLT_MAX, FLT_MAX);
      continue;
    }
    if (!fits_float(x) || !fits_float(y)) {
      throw py::value_error(std::string(what) + " must hold finite float32 values" +
                            (nan_is_missing ? " (NaN marks a circle not found)" : ""));
    }
    points.emplace_back(static_cast<float>(x), static_cast<float>(y));
  }
  return points;
}

std::vector<cv::Point2d> points2d(const py::handle& value, const char* what) {
  const py::array_t<double> a = point_rows(value, 2, what);
  std::vector<cv::Point2d> points;
  const double* data = a.data();
  for (py::ssize_t i = 0; i + 1 < a.size(); i += 2) {
    if (!std::isfinite(data[i]) || !std::isfinite(data[i + 1])) {
      throw py::value_error(std::string(what) + " must hold finite numbers");
    }
    points.emplace_back(data[i], data[i + 1]);
  }
  return points;
}

std::vector<cv::Vec3d> points3d(const py::handle& value, const char* what) {
  const py::array_t<double> a = point_rows(value, 3, what);
  std::vector<cv::Vec3d> points;
  const double* data = a.data();
  for (py::ssize_t i = 0; i + 2 < a.size(); i += 3) {
    for (int k = 0; k < 3; ++k) {
      if (!std::isfinite(data[i + k])) {
        throw py::value_error(std::string(what) + " must hold finite numbers");
      }
    }
    points.emplace_back(data[i], data[i + 1], data[i + 2]);
  }
  return points;
}

py::array to_array(const cv::Mat& m) {
  py::dtype dtype;
  switch (m.depth()) {
    case CV_8U:
      dtype = py::dtype::of<std::uint8_t>();
      break;
    case CV_32S:
      dtype = py::dtype::of<std::int32_t>();
      break;
    case CV_32F:
      dtype = py::dtype::of<float>();
      break;
    case CV_64F:
      dtype = py::dtype::of<double>();
      break;
    default:
      throw std::runtime_error("unexpected matrix type " + std::to_string(m.type()));
  }
  std::vector<py::ssize_t> shape = {m.rows, m.cols};
  if (m.channels() > 1) shape.push_back(m.channels());
  py::array out(dtype, shape);
  const std::size_t row_bytes = m.cols * m.elemSize();
  auto* dst = static_cast<char*>(out.mutable_data());
  for (int r = 0; r < m.rows; ++r) std::memcpy(dst + r * row_bytes, m.ptr(r), row_bytes);
  return out;
}

py::array_t<double> to_vector(const cv::Mat& m) {
  cv::Mat_<double> values;
  m.convertTo(values, CV_64F);
  py::array_t<double> out(static_cast<py::ssize_t>(values.total()));
  double* dst = out.mutable_data();
  for (int i = 0; i < values.rows; ++i) {
    for (int j = 0; j < values.cols; ++j) *dst++ = values(i, j);
  }
  return out;
}

py::array_t<float> to_array(const std::vector<cv::Point2f>& points, bool missing_to_nan) {
  py::array_t<float> out({static_cast<py::ssize_t>(points.size()), py::ssize_t{2}});
  float* dst = out.mutable_data();
  for (const cv::Point2f& p : points) {
    const bool missing = missing_to_nan && p.x == FLT_MAX;
    *dst++ = missing ? NAN : p.x;
    *dst++ = missing ? NAN : p.y;
  }
  return out;
}

py::array_t<double> to_array(const std::vector<cv::Point2d>& points) {
  py::array_t<double> out({static_cast<py::ssize_t>(points.size()), py::ssize_t{2}});
  double* dst = out.mutable_data();
  for (const cv::Point2d& p : points) {
    *dst++ = p.x;
    *dst++ = p.y;
  }
  return out;
}

py::array_t<double> to_array(const std::vector<double>& values) {
  py::array_t<double> out(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), out.mutable_data());
  return out;
}

py::array_t<std::int32_t> to_array(const std::vector<int>& values) {
  py::array_t<std::int32_t> out(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), out.mutable_data());
  return out;
}

py::array_t<double> to_array(const std::vector<cv::Point3d>& points) {
  py::array_t<double> out({static_cast<py::ssize_t>(points.size()), py::ssize_t{3}});
  double* dst = out.mutable_data();
  for (const cv::Point3d& p : points) {
    *dst++ = p.x;
    *dst++ = p.y;
    *dst++ = p.z;
  }
  return out;
}

std::string path_string(const py::handle& value, const char* what) {
  std::string path;
  try {
    const py::module_ os = py::module_::import("os");
    path = os.attr("fsdecode")(os.attr("fspath")(value)).cast<std::string>();
  } catch (py::error_already_set&) {
    throw py::type_error(std::string(what) + " must be a path (str, bytes or os.PathLike), got " +
                         type_name(value));
  }
  if (path.empty()) throw py::value_error(std::string(what) + " is an empty path");
  if (path.find('\0') != std::string::npos) {
    throw py::value_error(std::string(what) + " contains a NUL character");
  }
  return path;
}

}  // namespace python
}  // namespace sl3d
