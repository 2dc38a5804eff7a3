#include "params.h"

#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include "errors.h"
#include "io.h"

namespace sl3d {

namespace {

// One settable field of a parameter block: exactly one member pointer is set.
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

const std::vector<Field<PhaseShiftParams>>& phaseshift_fields() {
  using P = PhaseShiftParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_contrast", &P::min_contrast),
      int_field("max_white_level", &P::max_white_level),
      int_field("min_white_level", &P::min_white_level),
      double_field("unwrap_phase_margin", &P::unwrap_phase_margin),
      double_field("max_neighbor_disparity_step", &P::max_neighbor_disparity_step),
      double_field("max_phase_difference", &P::max_phase_difference),
      double_field("max_brightness_ratio", &P::max_brightness_ratio),
      double_field("max_disparity", &P::max_disparity),
      double_field("min_disparity", &P::min_disparity),
      int_field("max_uses_per_right_pixel", &P::max_uses_per_right_pixel),
      int_field("fit_width", &P::fit_width),
  };
  return fields;
}

const std::vector<Field<SGBMParams>>& sgbm_fields() {
  using P = SGBMParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_disparity", &P::min_disparity),
      int_field("num_disparities", &P::num_disparities),
      int_field("block_size", &P::block_size),
      int_field("disp12_max_diff", &P::disp12_max_diff),
      int_field("pre_filter_cap", &P::pre_filter_cap),
      int_field("uniqueness_ratio", &P::uniqueness_ratio),
      int_field("speckle_window_size", &P::speckle_window_size),
      int_field("speckle_range", &P::speckle_range),
      int_field("mode", &P::mode),
  };
  return fields;
}

template <class Block>
const Field<Block>* find_field(const std::vector<Field<Block>>& fields, const std::string& key) {
  for (const Field<Block>& field : fields) {
    if (key == field.name) return &field;
  }
  return nullptr;
}

template <class Block>
std::string joined_names(const std::vector<Field<Block>>& fields) {
  std::string names;
  for (const Field<Block>& field : fields) names += (names.empty() ? "" : ", ") + std::string(field.name);
  return names;
}

double numeric_value(const std::string& path, const cv::FileNode& node) {
  if (!node.isInt() && !node.isReal()) {
    throw file_error(path, "parameter '" + node.name() + "' must be a number");
  }
  const double value = node.real();
  if (!std::isfinite(value)) throw file_error(path, "parameter '" + node.name() + "' is not finite");
  return value;
}

template <class Block>
void set_field(const std::string& path, const Field<Block>& field, const cv::FileNode& node,
               Block& block) {
  const double value = numeric_value(path, node);
  if (field.double_member != nullptr) {
    block.*field.double_member = value;
    return;
  }
  if (!node.isInt()) throw file_error(path, "parameter '" + node.name() + "' must be an integer");
  block.*field.int_member = static_cast<int>(node);
}

cv::FileNode root_map(const std::string& path, const cv::FileStorage& storage) {
  cv::FileNode root = storage.root();
  if (!root.isMap() && !root.empty()) throw file_error(path, "expected a map of parameter names");
  return root;
}

template <class Block>
void apply_file(const std::string& path, const char* method,
                const std::vector<Field<Block>>& fields, Block& block) {
  const cv::FileStorage storage = open_yaml(path);
  const cv::FileNode root = root_map(path, storage);
  for (cv::FileNodeIterator it = root.begin(); it != root.end(); ++it) {
    const cv::FileNode node = *it;
    const Field<Block>* field = find_field(fields, node.name());
    if (field == nullptr) {
      throw file_error(path, "unknown " + std::string(method) + " parameter '" + node.name() +
                                 "' (known: " + joined_names(fields) + ")");
    }
    set_field(path, *field, node, block);
  }
}

// Values the library would silently change or OpenCV would reject mid-run.
void check_phaseshift(const std::string& path, const PhaseShiftParams& p) {
  if (p.fit_width != 3 && p.fit_width != 5) throw file_error(path, "fit_width must be 3 or 5");
  if (p.min_disparity >= p.max_disparity) {
    throw file_error(path, "min_disparity must be below max_disparity");
  }
}

void check_sgbm(const std::string& path, const SGBMParams& p) {
  if (p.num_disparities <= 0 || p.num_disparities % 16 != 0) {
    throw file_error(path, "num_disparities must be a positive multiple of 16");
  }
  if (p.block_size < 1 || p.block_size % 2 == 0) {
    throw file_error(path, "block_size must be a positive odd number");
  }
}

}  // namespace

void load_params_file(const std::string& path, Method method, MethodParams& params) {
  if (method == Method::kPhaseShift) {
    apply_file(path, "phaseshift", phaseshift_fields(), params.phaseshift);
    check_phaseshift(path, params.phaseshift);
  } else {
    apply_file(path, "sgbm", sgbm_fields(), params.sgbm);
    check_sgbm(path, params.sgbm);
  }
}

std::string param_names(Method method) {
  return method == Method::kPhaseShift ? joined_names(phaseshift_fields())
                                       : joined_names(sgbm_fields());
}

}  // namespace sl3d
