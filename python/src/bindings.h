#ifndef SL3D_PYTHON_BINDINGS_H_
#define SL3D_PYTHON_BINDINGS_H_

// The parts of the extension module and the C++ exceptions its functions
// raise; module.cpp turns them into the package's Python exceptions.

#include <stdexcept>
#include <string>

#include <pybind11/pybind11.h>

namespace sl3d {
namespace python {

// A library call failed (sl3d.Error).
struct LibraryError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A file or directory could not be read or written (sl3d.FileError, an
// OSError).
struct FileError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// StereoCalib::exec returned `code` (sl3d.CalibrationError).
struct CalibrationFailure : LibraryError {
  CalibrationFailure(int code, const std::string& message) : LibraryError(message), code(code) {}
  int code;
};

void bind_generators(pybind11::module_& m);
void bind_cameras(pybind11::module_& m);
void bind_boards(pybind11::module_& m);
void bind_sim(pybind11::module_& m);

}  // namespace python
}  // namespace sl3d

#endif  // SL3D_PYTHON_BINDINGS_H_
