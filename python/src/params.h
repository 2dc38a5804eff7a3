#ifndef SL3D_PYTHON_PARAMS_H_
#define SL3D_PYTHON_PARAMS_H_

// Parameter blocks from Python dicts, by field name. An unknown name, a
// value that is not a number (or not a whole number for an int field) or
// a non-finite value raises before the library sees the block.

#include <string>
#include <vector>

#include <pybind11/pybind11.h>

namespace sl3d {
namespace python {

namespace py = pybind11;

// One settable field of a block: exactly one member pointer is set.
template <class Block>
struct Field {
  const char* name;
  int Block::*int_member;
  double Block::*double_member;
};

template <class Block>
Field<Block> int_field(const char* name, int Block::*member) {
  return {name, member, nullptr};
}
template <class Block>
Field<Block> double_field(const char* name, double Block::*member) {
  return {name, nullptr, member};
}

// A finite real number (int or float, numpy scalars included; not bool).
double real_value(const py::handle& value, const std::string& name);
// A whole number in the range of int32 (not bool).
int int_value(const py::handle& value, const std::string& name);
// The dict's keys, checked to be strings.
std::string key_name(const py::handle& key);
std::string joined_names(const std::vector<std::string>& names);

template <class Block>
void apply_fields(const py::dict& values, const std::vector<Field<Block>>& fields, Block& block,
                  const char* what) {
  for (const auto& item : values) {
    const std::string key = key_name(item.first);
    const Field<Block>* field = nullptr;
    std::vector<std::string> names;
    for (const Field<Block>& f : fields) {
      names.push_back(f.name);
      if (key == f.name) field = &f;
    }
    if (field == nullptr) {
      throw py::key_error("unknown " + std::string(what) + " parameter '" + key +
                          "' (known: " + joined_names(names) + ")");
    }
    if (field->int_member != nullptr) {
      block.*field->int_member = int_value(item.second, key);
    } else {
      block.*field->double_member = real_value(item.second, key);
    }
  }
}

template <class Block>
py::dict fields_dict(const std::vector<Field<Block>>& fields, const Block& block) {
  py::dict out;
  for (const Field<Block>& f : fields) {
    if (f.int_member != nullptr) {
      out[f.name] = block.*f.int_member;
    } else {
      out[f.name] = block.*f.double_member;
    }
  }
  return out;
}

}  // namespace python
}  // namespace sl3d

#endif  // SL3D_PYTHON_PARAMS_H_
