#include "key_file.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

#include <sl3d/camera/yaml_reader.h>

namespace sl3d {

namespace {

const KeyRule* find_rule(const std::vector<KeyRule>& rules, const std::string& name) {
  for (const KeyRule& rule : rules) {
    if (name == rule.name) return &rule;
  }
  return nullptr;
}

std::string number_text(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

std::string range_text(const KeyRule& rule) {
  if (rule.kind == KeyKind::kBool) return "0 or 1";
  const std::string what = rule.kind == KeyKind::kInt ? "an integer " : "a number ";
  if (rule.lo == rule.hi) return number_text(rule.lo);
  return what + (rule.lo_open ? "above " : "from ") + number_text(rule.lo) + " to " +
         number_text(rule.hi);
}

bool in_range(const KeyRule& rule, double v) {
  if (rule.kind == KeyKind::kBool) return v == 0.0 || v == 1.0;
  const bool above_lo = rule.lo_open ? v > rule.lo : v >= rule.lo;
  return above_lo && v <= rule.hi;
}

double checked_value(const std::string& path, const std::string& key, const YamlNode& node,
                     const KeyRule& rule) {
  const std::string expected = "'" + key + "' must be " + range_text(rule);
  if (node.kind != YamlNode::Kind::kScalar) throw key_error(path, node.line, expected);
  const bool whole = node.is_integer();
  if (!node.is_number() || (rule.kind != KeyKind::kReal && !whole)) {
    throw key_error(path, node.line, expected + ", got '" + node.text + "'");
  }
  char* end = nullptr;
  const double value = std::strtod(node.text.c_str(), &end);
  // .inf and .nan are YAML numbers, but no key takes them.
  if (*end != '\0' || !std::isfinite(value) || !in_range(rule, value)) {
    throw key_error(path, node.line, expected + ", got " + node.text);
  }
  return value;
}

}  // namespace

CliError key_error(const std::string& path, int line, const std::string& problem) {
  return file_error(path, (line > 0 ? "line " + std::to_string(line) + ": " : "") + problem);
}

std::string key_names(const std::vector<KeyRule>& rules) {
  std::string names;
  for (const KeyRule& rule : rules) names += (names.empty() ? "" : ", ") + std::string(rule.name);
  return names;
}

KeyValues read_key_file(const std::string& path, const std::vector<KeyRule>& rules) {
  YamlNode root;
  std::string error;
  if (!read_yaml_file(path, root, error)) throw file_error(path, error);
  KeyValues result;
  for (const auto& entry : root.entries) {
    const std::string& key = entry.first;
    const KeyRule* rule = find_rule(rules, key);
    if (rule == nullptr) {
      throw key_error(path, entry.second.line,
                      "unknown key '" + key + "' (known: " + key_names(rules) + ")");
    }
    result.values[key] = checked_value(path, key, entry.second, *rule);
    result.lines[key] = entry.second.line;
  }
  return result;
}

}  // namespace sl3d
