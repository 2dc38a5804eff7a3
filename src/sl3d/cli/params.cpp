#include "params.h"

#include <vector>

#include "key_file.h"

namespace sl3d {

namespace {

// One settable field of a parameter block with the range the tool accepts:
// exactly one member pointer is set.
template <class Block>
struct Field {
  KeyRule rule;
  int Block::*int_member;
  double Block::*double_member;
};

template <class Block>
Field<Block> int_field(const char* name, int Block::*member, double lo, double hi) {
  return {{name, KeyKind::kInt, lo, hi}, member, nullptr};
}
template <class Block>
Field<Block> real_field(const char* name, double Block::*member, double lo, double hi,
                        bool lo_open = false) {
  return {{name, KeyKind::kReal, lo, hi, lo_open}, nullptr, member};
}

// Disparities and their steps never exceed the widest image OpenCV takes.
constexpr double kMaxDisparity = 65536;

const std::vector<Field<PhaseShiftParams>>& phaseshift_fields() {
  using P = PhaseShiftParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_contrast", &P::min_contrast, 0, 255),
      int_field("max_white_level", &P::max_white_level, 0, 256),
      int_field("min_white_level", &P::min_white_level, 0, 256),
      real_field("unwrap_phase_margin", &P::unwrap_phase_margin, 0, 2.0 * CV_PI),
      real_field("max_neighbor_disparity_step", &P::max_neighbor_disparity_step, 0,
                 kMaxDisparity, true),
      real_field("max_phase_difference", &P::max_phase_difference, 0, 2.0 * CV_PI, true),
      real_field("max_brightness_ratio", &P::max_brightness_ratio, 0, 100),
      real_field("max_disparity", &P::max_disparity, -kMaxDisparity, kMaxDisparity),
      real_field("min_disparity", &P::min_disparity, -kMaxDisparity, kMaxDisparity),
      // Use counts share the status byte with the rejection codes from 200.
      int_field("max_uses_per_right_pixel", &P::max_uses_per_right_pixel, 1, 199),
      int_field("fit_width", &P::fit_width, 3, 5),
  };
  return fields;
}

// The block matcher's own limits, and those past which its cost terms
// (P2 = 32 * block_size^2) would overflow.
const std::vector<Field<SGBMParams>>& sgbm_fields() {
  using P = SGBMParams;
  static const std::vector<Field<P>> fields = {
      int_field("min_disparity", &P::min_disparity, -kMaxDisparity, kMaxDisparity),
      int_field("num_disparities", &P::num_disparities, 16, 4096),
      int_field("block_size", &P::block_size, 1, 255),
      int_field("disp12_max_diff", &P::disp12_max_diff, -1, kMaxDisparity),
      int_field("pre_filter_cap", &P::pre_filter_cap, 0, 63),
      int_field("uniqueness_ratio", &P::uniqueness_ratio, 0, 100),
      int_field("speckle_window_size", &P::speckle_window_size, 0, 1 << 20),
      int_field("speckle_range", &P::speckle_range, 0, 4096),
      int_field("mode", &P::mode, 0, 3),
  };
  return fields;
}

template <class Block>
std::vector<KeyRule> rules_of(const std::vector<Field<Block>>& fields) {
  std::vector<KeyRule> rules;
  for (const Field<Block>& field : fields) rules.push_back(field.rule);
  return rules;
}

template <class Block>
KeyValues apply_file(const std::string& path, const std::vector<Field<Block>>& fields,
                     Block& block) {
  const KeyValues file = read_key_file(path, rules_of(fields));
  for (const Field<Block>& field : fields) {
    const auto it = file.values.find(field.rule.name);
    if (it == file.values.end()) continue;
    if (field.double_member != nullptr) {
      block.*field.double_member = it->second;
    } else {
      block.*field.int_member = static_cast<int>(it->second);
    }
  }
  return file;
}

int line_of(const KeyValues& file, const char* key) {
  const auto it = file.lines.find(key);
  return it == file.lines.end() ? 0 : it->second;
}

// Values the library would silently change or OpenCV would reject mid-run.
void check_phaseshift(const std::string& path, const KeyValues& file, const PhaseShiftParams& p) {
  if (p.fit_width != 3 && p.fit_width != 5) {
    throw key_error(path, line_of(file, "fit_width"), "'fit_width' must be 3 or 5");
  }
  if (p.min_disparity >= p.max_disparity) {
    throw key_error(path, line_of(file, "min_disparity"),
                    "'min_disparity' must be below max_disparity");
  }
}

void check_sgbm(const std::string& path, const KeyValues& file, const SGBMParams& p) {
  if (p.num_disparities % 16 != 0) {
    throw key_error(path, line_of(file, "num_disparities"),
                    "'num_disparities' must be a multiple of 16");
  }
  if (p.block_size % 2 == 0) {
    throw key_error(path, line_of(file, "block_size"), "'block_size' must be odd");
  }
}

}  // namespace

void load_params_file(const std::string& path, Method method, MethodParams& params) {
  if (method == Method::kPhaseShift) {
    const KeyValues file = apply_file(path, phaseshift_fields(), params.phaseshift);
    check_phaseshift(path, file, params.phaseshift);
  } else {
    const KeyValues file = apply_file(path, sgbm_fields(), params.sgbm);
    check_sgbm(path, file, params.sgbm);
  }
}

std::string param_names(Method method) {
  return method == Method::kPhaseShift ? key_names(rules_of(phaseshift_fields()))
                                       : key_names(rules_of(sgbm_fields()));
}

}  // namespace sl3d
