#include <sl3d/calibboard/calib_board_params.h>

namespace {

using KeyMap = std::map<std::string, double>;

void read(const KeyMap& values, const char* key, double& field) {
  const auto it = values.find(key);
  if (it != values.end()) field = it->second;
}

void read(const KeyMap& values, const char* key, std::int32_t& field) {
  const auto it = values.find(key);
  if (it != values.end()) field = sl3d::detail::truncate_to_int32(it->second);
}

// NaN != 0.0, so NaN switches a flag on.
void read(const KeyMap& values, const char* key, bool& field) {
  const auto it = values.find(key);
  if (it != values.end()) field = it->second != 0.0;
}

}  // namespace

void PreProcParams::set(std::map<std::string, double>& values) {
  read(values, "do_reverse_bw", do_reverse_bw);
  read(values, "do_equalize_hist", do_equalize_hist);
  read(values, "do_smoothing", do_smoothing);
  read(values, "bin_type", bin_type);
  read(values, "bin_param0", bin_param0);
  read(values, "bin_param1", bin_param1);
  read(values, "gamma_correction", gamma_correction);
}

void CircleMarkerParams::set(std::map<std::string, double>& values) {
  read(values, "fitscore", fitscore);
  read(values, "n_minimum", n_minimum);
  read(values, "max_radius", max_radius);
  read(values, "min_radius", min_radius);
  read(values, "debug_show_scale", debug_show_scale);
}

void CalibBoardParams::set(std::map<std::string, double>& values) {
  read(values, "unit_length", unit_length);
  read(values, "n_circles_x", n_circles_x);
  read(values, "n_circles_y", n_circles_y);
  read(values, "origin_x", origin_x);
  read(values, "origin_y", origin_y);
  read(values, "distance_between_circles", distance_between_circles);
}
