#ifndef SL3D_PYTHON_CAMERAS_H_
#define SL3D_PYTHON_CAMERAS_H_

// Conversions shared by the camera, calibration and virtual-sensor parts.

#include <vector>

#include <opencv2/core.hpp>
#include <pybind11/pybind11.h>

#include <sl3d/camera/camera_distort.h>

namespace sl3d {
namespace python {

// (width, height), each 1..100000.
cv::Size size_value(const pybind11::handle& value, const char* what);

// Copies of a sequence of exactly two DistortCamera objects.
std::vector<DistortCamera> camera_pair(const pybind11::handle& value, const char* what);

}  // namespace python
}  // namespace sl3d

#endif  // SL3D_PYTHON_CAMERAS_H_
