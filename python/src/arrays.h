#ifndef SL3D_PYTHON_ARRAYS_H_
#define SL3D_PYTHON_ARRAYS_H_

// Checked conversions between numpy arrays and the library's types.
//
// Images are handed to the library without a copy, so they must be exactly
// what it reads: 2-D uint8 arrays whose rows are contiguous in memory (a
// row step is allowed, as the library takes one). Anything else raises
// TypeError (not an array, wrong dtype) or ValueError (shape, layout,
// read-only where the library writes) before the library sees it. Point
// lists and matrices are small and always copied; they accept any real
// numeric array or nested sequence of the right shape.
//
// Every array returned to Python owns a copy of its data.

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

namespace sl3d {
namespace python {

namespace py = pybind11;

// A view of a 2-D uint8 image (no copy). `what` names the argument in
// messages. With `writable`, a read-only array raises ValueError.
cv::Mat image_view(const py::handle& image, const char* what, bool writable = false);

// A deep copy of a 2-D uint8 image, for work done without the GIL.
cv::Mat image_copy(const py::handle& image, const char* what);

// A 1-D uint8 array, copied.
std::vector<std::uint8_t> byte_values(const py::handle& value, const char* what);

// Raises ValueError unless the image is `height` x `width`.
void require_size(const cv::Mat& image, int width, int height, const char* what);

// Any array-like of real numbers (not bool, complex or objects) as a
// C-contiguous float64 array.
py::array_t<double> real_array(const py::handle& value, const char* what);

// A rows x cols matrix of finite numbers.
cv::Mat_<double> matrix(const py::handle& value, int rows, int cols, const char* what);

// An (n, 2) list of pixel positions. With `nan_is_missing`, NaN rows become
// the library's "not found" mark (x = FLT_MAX); otherwise every value must
// be finite. An empty sequence gives an empty list.
std::vector<cv::Point2f> points2f(const py::handle& value, const char* what, bool nan_is_missing);
std::vector<cv::Point2d> points2d(const py::handle& value, const char* what);
// An (n, 3) list of finite points.
std::vector<cv::Vec3d> points3d(const py::handle& value, const char* what);

// Copies into new numpy arrays. Single-channel matrices of 8-bit, 32-bit
// int, float or double keep their shape; 3-channel 8-bit images become
// (rows, cols, 3).
py::array to_array(const cv::Mat& m);
// A matrix with one row or one column as a 1-D array.
py::array_t<double> to_vector(const cv::Mat& m);
// (n, 2) float32; with `missing_to_nan`, x = FLT_MAX rows become NaN.
py::array_t<float> to_array(const std::vector<cv::Point2f>& points, bool missing_to_nan);
py::array_t<double> to_array(const std::vector<cv::Point2d>& points);
py::array_t<double> to_array(const std::vector<double>& values);
py::array_t<std::int32_t> to_array(const std::vector<int>& values);
py::array_t<double> to_array(const std::vector<cv::Point3d>& points);

// A path from str, bytes or os.PathLike.
std::string path_string(const py::handle& value, const char* what);

// Runs `work` without the GIL while holding `lock`, so that other Python
// threads run meanwhile but never use the same object at the same time.
// The lock is released before the GIL is taken back, so a thread that
// holds the GIL and waits for the lock cannot deadlock with this one.
// `work` must not touch Python objects.
template <class Work>
auto without_gil(std::mutex& lock, Work&& work) -> decltype(work()) {
  py::gil_scoped_release release;
  std::lock_guard<std::mutex> guard(lock);
  return work();
}

}  // namespace python
}  // namespace sl3d

#endif  // SL3D_PYTHON_ARRAYS_H_
