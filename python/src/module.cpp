// The extension module sl3d._sl3d. The package's __init__.py re-exports it
// and adds the pure-Python conveniences.

#include <typeinfo>

#include <opencv2/core.hpp>
#include <pybind11/pybind11.h>

#include <sl3d/version.h>

#include "bindings.h"

namespace py = pybind11;
using sl3d::python::CalibrationFailure;
using sl3d::python::FileError;
using sl3d::python::LibraryError;

namespace {

// The exception classes; the module's attributes keep them alive.
py::handle error_class;
py::handle opencv_error_class;
py::handle calibration_error_class;
py::handle file_error_class;

void translate(std::exception_ptr failure) {
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (const CalibrationFailure& e) {
    py::object exception = py::reinterpret_borrow<py::object>(calibration_error_class)(e.what());
    exception.attr("code") = e.code;
    PyErr_SetObject(calibration_error_class.ptr(), exception.ptr());
  } catch (const LibraryError& e) {
    PyErr_SetString(error_class.ptr(), e.what());
  } catch (const FileError& e) {
    PyErr_SetString(file_error_class.ptr(), e.what());
  } catch (const cv::Exception& e) {
    PyErr_SetString(opencv_error_class.ptr(), ("OpenCV error in " + e.func + ": " + e.err).c_str());
  } catch (const std::logic_error& e) {
    // The library's own exception: a camera model was asked for what it
    // cannot do. Its subclasses (length_error, out_of_range, ...) go on to
    // pybind11's own translation.
    if (typeid(e) != typeid(std::logic_error)) throw;
    PyErr_SetString(error_class.ptr(), e.what());
  }
}

py::handle new_exception(py::module_& m, const char* name, py::handle base, const char* doc) {
  const std::string qualified = std::string("sl3d.") + name;
  py::handle type(PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base.ptr(), nullptr));
  if (!type) throw py::error_already_set();
  m.add_object(name, type);  // steals the new reference
  return type;
}

}  // namespace

PYBIND11_MODULE(_sl3d, m) {
  m.doc() = "Python bindings of libsl3d (see the package sl3d)";
  m.attr("__version__") = sl3d::version();
  m.attr("header_version") = SL3D_VERSION_STRING;

  error_class = new_exception(m, "Error", PyExc_RuntimeError, "A call into libsl3d failed.");
  opencv_error_class =
      new_exception(m, "OpenCVError", error_class, "OpenCV raised an error inside libsl3d.");
  calibration_error_class = new_exception(
      m, "CalibrationError", error_class,
      "The pair calibration failed; `code` is the driver's result (1 a camera, 2 the pair).");
  file_error_class = new_exception(m, "FileError", PyExc_OSError,
                                   "A file or directory could not be read or written.");
  py::register_exception_translator(translate);

  sl3d::python::bind_generators(m);
  sl3d::python::bind_cameras(m);
  sl3d::python::bind_boards(m);
  sl3d::python::bind_sim(m);
}
