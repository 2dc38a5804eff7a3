#include "scan_exports.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "errors.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

bool parse_number(const std::string& text, double& value) {
  errno = 0;
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && errno == 0 && std::isfinite(value);
}

DepthRange parse_range(const std::string& command, const std::string& text) {
  const std::size_t colon = text.find(':');
  DepthRange range;
  if (colon == std::string::npos || !parse_number(text.substr(0, colon), range.near) ||
      !parse_number(text.substr(colon + 1), range.far) || range.empty()) {
    throw usage_error(command, "--depth-range expects MIN:MAX with MIN below MAX, got '" +
                                   text + "'");
  }
  return range;
}

std::string optional_path(const std::string& command, const ParsedArgs& parsed,
                          const std::string& option) {
  if (!parsed.has(option)) return "";
  if (parsed.get(option, "").empty()) throw usage_error(command, option + " needs a non-empty value");
  return parsed.get(option, "");
}

}  // namespace

std::vector<std::string> ScanExports::paths() const {
  std::vector<std::string> out;
  for (const std::string* path : {&depth_png, &depth_tiff, &xyz_tiff}) {
    if (!path->empty()) out.push_back(*path);
  }
  return out;
}

std::vector<OptionDef> scan_export_options() {
  return {{"--depth-png", true}, {"--depth-tiff", true}, {"--xyz-tiff", true},
          {"--depth-range", true}};
}

ScanExports parse_scan_exports(const std::string& command, const ParsedArgs& parsed,
                               const std::string& ply_file) {
  ScanExports exports;
  exports.depth_png = optional_path(command, parsed, "--depth-png");
  exports.depth_tiff = optional_path(command, parsed, "--depth-tiff");
  exports.xyz_tiff = optional_path(command, parsed, "--xyz-tiff");
  if (parsed.has("--depth-range")) {
    if (exports.depth_png.empty()) throw usage_error(command, "--depth-range needs --depth-png");
    exports.depth_range = parse_range(command, parsed.get("--depth-range", ""));
  }
  std::vector<std::string> all = exports.paths();
  all.push_back(ply_file);
  for (std::size_t a = 0; a < all.size(); ++a) {
    for (std::size_t b = a + 1; b < all.size(); ++b) {
      if (fs::path(all[a]).lexically_normal() == fs::path(all[b]).lexically_normal()) {
        throw usage_error(command, "two outputs name the same file '" + all[a] + "'");
      }
    }
  }
  return exports;
}

void add_scan_exports(const ScanExports& exports, const Measurement& m,
                      std::vector<PendingFile>& outputs) {
  const cv::Mat depth = depth_map(m);
  if (!exports.depth_png.empty()) {
    outputs.emplace_back(exports.depth_png);
    const DepthRange range = exports.depth_range ? *exports.depth_range : percentile_range(depth);
    outputs.back().write(encode_png(depth_preview(depth, range), exports.depth_png));
  }
  if (!exports.depth_tiff.empty()) {
    outputs.emplace_back(exports.depth_tiff);
    outputs.back().write(encode_float_tiff(depth, exports.depth_tiff));
  }
  if (!exports.xyz_tiff.empty()) {
    outputs.emplace_back(exports.xyz_tiff);
    outputs.back().write(encode_float_tiff(xyz_map(m), exports.xyz_tiff));
  }
}

}  // namespace sl3d
