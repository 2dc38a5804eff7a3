#include "params.h"

#include <climits>
#include <cmath>

namespace sl3d {
namespace python {

namespace {

std::string type_name(const py::handle& value) {
  return py::str(py::type::handle_of(value).attr("__name__"));
}

bool is_number(const py::handle& value) {
  return PyNumber_Check(value.ptr()) && !py::isinstance<py::bool_>(value) &&
         !PyComplex_Check(value.ptr()) && !py::isinstance<py::str>(value) &&
         !py::isinstance<py::bytes>(value);
}

}  // namespace

double real_value(const py::handle& value, const std::string& name) {
  if (!is_number(value)) {
    throw py::type_error("'" + name + "' must be a number, got " + type_name(value));
  }
  const double v = PyFloat_AsDouble(value.ptr());
  if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
  if (!std::isfinite(v)) throw py::value_error("'" + name + "' must be finite");
  return v;
}

int int_value(const py::handle& value, const std::string& name) {
  const double v = real_value(value, name);
  if (v != std::floor(v)) throw py::value_error("'" + name + "' must be a whole number");
  if (v < INT_MIN || v > INT_MAX) throw py::value_error("'" + name + "' is out of the int32 range");
  return static_cast<int>(v);
}

std::string key_name(const py::handle& key) {
  if (!py::isinstance<py::str>(key)) {
    throw py::type_error("parameter names must be strings, got " + type_name(key));
  }
  return key.cast<std::string>();
}

std::string joined_names(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace python
}  // namespace sl3d
