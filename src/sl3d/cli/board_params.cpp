#include "board_params.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

#include "errors.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

enum class KeyKind { kBool, kInt, kReal };

struct KeyDef {
  const char* name;
  KeyKind kind;
};

const std::vector<KeyDef> kPreProcKeys = {
    {"do_reverse_bw", KeyKind::kBool},  {"do_equalize_hist", KeyKind::kBool},
    {"do_smoothing", KeyKind::kBool},   {"bin_type", KeyKind::kInt},
    {"bin_param0", KeyKind::kInt},      {"bin_param1", KeyKind::kInt},
    {"gamma_correction", KeyKind::kReal}};
const std::vector<KeyDef> kCircleMarkerKeys = {
    {"fitscore", KeyKind::kReal},   {"n_minimum", KeyKind::kInt},
    {"max_radius", KeyKind::kReal}, {"min_radius", KeyKind::kReal},
    {"debug_show_scale", KeyKind::kReal}};
const std::vector<KeyDef> kCalibBoardKeys = {
    {"unit_length", KeyKind::kReal}, {"n_circles_x", KeyKind::kInt},
    {"n_circles_y", KeyKind::kInt},  {"origin_x", KeyKind::kInt},
    {"origin_y", KeyKind::kInt},     {"distance_between_circles", KeyKind::kReal}};

using KeyMap = std::map<std::string, double>;

struct ParsedFile {
  KeyMap pre, marker, board;
};

std::string joined(const std::vector<KeyDef>& keys) {
  std::string names;
  for (const KeyDef& key : keys) names += (names.empty() ? "" : ", ") + std::string(key.name);
  return names;
}

const KeyDef* find_key(const std::vector<KeyDef>& keys, const std::string& name) {
  for (const KeyDef& key : keys) {
    if (name == key.name) return &key;
  }
  return nullptr;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string without_comment(const std::string& line) {
  return trimmed(line.substr(0, line.find('#')));
}

CliError line_error(const std::string& path, int line, const std::string& problem) {
  return file_error(path, "line " + std::to_string(line) + ": " + problem);
}

double parse_number(const std::string& path, int line, const std::string& key,
                    const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value)) {
    throw line_error(path, line, "'" + key + "' must be a finite number, got '" + text + "'");
  }
  return value;
}

void check_kind(const std::string& path, int line, const std::string& key, KeyKind kind,
                double value) {
  if (kind == KeyKind::kBool && value != 0.0 && value != 1.0) {
    throw line_error(path, line, "'" + key + "' must be 0 or 1");
  }
  if (kind == KeyKind::kInt &&
      (value != std::floor(value) || value < -2147483648.0 || value > 2147483647.0)) {
    throw line_error(path, line, "'" + key + "' must be a whole number");
  }
}

// The record a key belongs to, or null when no record has it.
KeyMap* record_of(ParsedFile& parsed, const std::string& key, KeyKind& kind) {
  const std::pair<const std::vector<KeyDef>*, KeyMap*> records[] = {
      {&kPreProcKeys, &parsed.pre},
      {&kCircleMarkerKeys, &parsed.marker},
      {&kCalibBoardKeys, &parsed.board}};
  for (const auto& record : records) {
    if (const KeyDef* def = find_key(*record.first, key)) {
      kind = def->kind;
      return record.second;
    }
  }
  return nullptr;
}

// YAML's directive and document markers carry no parameters.
bool is_yaml_marker(const std::string& text) {
  return text[0] == '%' || text == "---" || text == "...";
}

void parse_line(const std::string& path, int line, const std::string& text, ParsedFile& parsed) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) throw line_error(path, line, "expected 'key: value'");
  const std::string key = trimmed(text.substr(0, colon));
  KeyKind kind = KeyKind::kReal;
  KeyMap* record = record_of(parsed, key, kind);
  if (record == nullptr) throw line_error(path, line, "unknown key '" + key + "' (see 'sl3d detect --help')");
  if (record->count(key) != 0) throw line_error(path, line, "'" + key + "' given twice");
  const double value = parse_number(path, line, key, trimmed(text.substr(colon + 1)));
  check_kind(path, line, key, kind, value);
  (*record)[key] = value;
}

ParsedFile parse_file(const std::string& path) {
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) throw file_error(path, "no such file");
  if (!fs::is_regular_file(status)) throw file_error(path, "not a regular file");
  std::ifstream in(path);
  if (!in) throw file_error(path, "cannot open for reading");
  ParsedFile parsed;
  std::string raw;
  for (int line = 1; std::getline(in, raw); ++line) {
    const std::string text = without_comment(raw);
    if (text.empty() || is_yaml_marker(text)) continue;
    parse_line(path, line, text, parsed);
  }
  if (in.bad()) throw file_error(path, "read error");
  return parsed;
}

// Values the recognizer would take but then fail on, crash on or try to
// show in a window.
void check_records(const std::string& path, const BoardRecords& r) {
  const CalibBoardParams& b = r.board;
  if (!(b.unit_length > 0.0)) throw file_error(path, "unit_length must be > 0");
  if (b.n_circles_x < 1 || b.n_circles_y < 1) {
    throw file_error(path, "n_circles_x and n_circles_y must be >= 1");
  }
  if (b.origin_x < 0 || b.origin_x >= b.n_circles_x || b.origin_y < 0 ||
      b.origin_y >= b.n_circles_y) {
    throw file_error(path, "origin_x must be 0..n_circles_x-1 and origin_y 0..n_circles_y-1");
  }
  if (r.pre.bin_type < 0 || r.pre.bin_type > 2) throw file_error(path, "bin_type must be 0, 1 or 2");
  if (r.pre.bin_type == 2 && (r.pre.bin_param0 < 3 || r.pre.bin_param0 % 2 == 0)) {
    throw file_error(path, "bin_type 2 needs an odd bin_param0 >= 3 (the block size)");
  }
  if (!(r.pre.gamma_correction > 0.0)) throw file_error(path, "gamma_correction must be > 0");
  if (r.marker.debug_show_scale != 0.0) {
    throw file_error(path, "debug_show_scale must be 0: the tool shows no windows");
  }
}

}  // namespace

BoardRecords read_board_params(const std::string& path) {
  ParsedFile parsed = parse_file(path);
  BoardRecords records;
  records.pre.set(parsed.pre);
  records.marker.set(parsed.marker);
  records.board.set(parsed.board);
  check_records(path, records);
  return records;
}

std::string pre_proc_keys() { return joined(kPreProcKeys); }
std::string circle_marker_keys() { return joined(kCircleMarkerKeys); }
std::string calib_board_keys() { return joined(kCalibBoardKeys); }

}  // namespace sl3d
