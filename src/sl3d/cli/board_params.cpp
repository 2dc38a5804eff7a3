#include "board_params.h"

#include "key_file.h"

#include <sstream>

namespace sl3d {

namespace {

// Ranges a real board and camera need; beyond them the recognizer would
// overflow its counts, allocate without bound or threshold for ever.
constexpr double kMaxCircles = 1000;      // per board side
constexpr double kMaxBlockSize = 1023;    // adaptive threshold block
constexpr double kMaxRadius = 100000;     // pixels

const std::vector<KeyRule> kPreProcKeys = {
    {"do_reverse_bw", KeyKind::kBool, 0, 1},
    {"do_equalize_hist", KeyKind::kBool, 0, 1},
    {"do_smoothing", KeyKind::kBool, 0, 1},
    {"bin_type", KeyKind::kInt, 0, 2},
    {"bin_param0", KeyKind::kInt, 0, kMaxBlockSize},
    {"bin_param1", KeyKind::kInt, -255, 255},
    {"gamma_correction", KeyKind::kReal, 0, 10, true}};
const std::vector<KeyRule> kCircleMarkerKeys = {
    {"fitscore", KeyKind::kReal, 0, 1},
    {"n_minimum", KeyKind::kInt, 1, 1000000},
    {"max_radius", KeyKind::kReal, 0, kMaxRadius, true},
    {"min_radius", KeyKind::kReal, 0, kMaxRadius, true},
    {"debug_show_scale", KeyKind::kReal, 0, 0}};
const std::vector<KeyRule> kCalibBoardKeys = {
    {"unit_length", KeyKind::kReal, 0, 1e6, true},
    {"n_circles_x", KeyKind::kInt, 1, kMaxCircles},
    {"n_circles_y", KeyKind::kInt, 1, kMaxCircles},
    {"origin_x", KeyKind::kInt, 0, kMaxCircles - 1},
    {"origin_y", KeyKind::kInt, 0, kMaxCircles - 1},
    {"distance_between_circles", KeyKind::kReal, 0, 100, true}};
// Read by the tool, not by the recognizer.
const std::vector<KeyRule> kToolKeys = {{"circle_radius", KeyKind::kReal, 0, 1e6, true}};

std::vector<KeyRule> all_keys() {
  std::vector<KeyRule> keys = kPreProcKeys;
  keys.insert(keys.end(), kCircleMarkerKeys.begin(), kCircleMarkerKeys.end());
  keys.insert(keys.end(), kCalibBoardKeys.begin(), kCalibBoardKeys.end());
  keys.insert(keys.end(), kToolKeys.begin(), kToolKeys.end());
  return keys;
}

// The keys of one record, as its `set` takes them.
std::map<std::string, double> record_values(const KeyValues& file,
                                            const std::vector<KeyRule>& record) {
  std::map<std::string, double> values;
  for (const KeyRule& rule : record) {
    const auto it = file.values.find(rule.name);
    if (it != file.values.end()) values[rule.name] = it->second;
  }
  return values;
}

int line_of(const KeyValues& file, const char* key) {
  const auto it = file.lines.find(key);
  return it == file.lines.end() ? 0 : it->second;
}

// Checks that span keys; each names the key at fault and its line.
void check_records(const std::string& path, const KeyValues& file, const BoardRecords& r) {
  const CalibBoardParams& b = r.board;
  if (b.unit_length <= 0.0) throw key_error(path, 0, "'unit_length' must be given (above 0)");
  if (b.n_circles_x < 1 || b.n_circles_y < 1) {
    throw key_error(path, 0, "'n_circles_x' and 'n_circles_y' must be given (at least 1)");
  }
  if (b.origin_x >= b.n_circles_x) {
    throw key_error(path, line_of(file, "origin_x"), "'origin_x' must be below n_circles_x");
  }
  if (b.origin_y >= b.n_circles_y) {
    throw key_error(path, line_of(file, "origin_y"), "'origin_y' must be below n_circles_y");
  }
  const int bin_line = line_of(file, "bin_param0");
  if (r.pre.bin_type == 0 && r.pre.bin_param0 > 255) {
    throw key_error(path, bin_line, "'bin_param0' (the threshold of bin_type 0) must be 0..255");
  }
  if (r.pre.bin_type == 2 && (r.pre.bin_param0 < 3 || r.pre.bin_param0 % 2 == 0)) {
    throw key_error(path, bin_line, "bin_type 2 needs an odd 'bin_param0' from 3 to 1023 (the block size)");
  }
  if (r.marker.min_radius > r.marker.max_radius) {
    throw key_error(path, line_of(file, "min_radius"), "'min_radius' must not exceed max_radius");
  }
}

}  // namespace

BoardRecords read_board_params(const std::string& path) {
  const KeyValues file = read_key_file(path, all_keys());
  BoardRecords records;
  std::map<std::string, double> pre = record_values(file, kPreProcKeys);
  std::map<std::string, double> marker = record_values(file, kCircleMarkerKeys);
  std::map<std::string, double> board = record_values(file, kCalibBoardKeys);
  records.pre.set(pre);
  records.marker.set(marker);
  records.board.set(board);
  check_records(path, file, records);
  const auto radius = file.values.find("circle_radius");
  if (radius != file.values.end()) records.circle_radius = radius->second;
  return records;
}

std::string pre_proc_keys() { return key_names(kPreProcKeys); }
std::string circle_marker_keys() { return key_names(kCircleMarkerKeys); }
std::string calib_board_keys() { return key_names(kCalibBoardKeys); }
std::string tool_board_keys() { return key_names(kToolKeys); }

std::string circle_radius_key_text(double radius) {
  std::ostringstream out;
  out.precision(12);
  out << "# calibration: the circles' radius in the unit of unit_length (the outer\n"
         "# radius of a ring), for the correction of the circle-centre bias\n"
         "circle_radius: "
      << radius << "\n";
  return out.str();
}

}  // namespace sl3d
