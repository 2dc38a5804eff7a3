#ifndef SL3D_CAMERA_YAML_READER_H_
#define SL3D_CAMERA_YAML_READER_H_

// The one reader of YAML text in sl3d: calibration files, Q files and the
// tool's key files all come through here.
//
// Why: OpenCV's YAML parser is not safe on text it did not write itself (a
// mangled 51-byte file makes it spin for minutes, NUL bytes make it throw
// std::length_error). So every file is first read by this small parser,
// which runs in one pass over a size-limited text and accepts only the
// subset of YAML that calibration and key files use:
//
//   %YAML:1.0            optional directive (or "%YAML 1.x"), then "---"
//   key: value           block maps; keys are [A-Za-z_][A-Za-z0-9_-]*
//   key: !!opencv-matrix a tagged block map on the deeper-indented lines
//   key: [ 1, 2., 3e4 ]  flow sequences of scalars, over several lines
//   key:                 block sequences of scalars
//     - 640
//   # comment            comments and blank lines anywhere
//
// Scalars are numbers (decimal, with exponent, .inf/.nan), words (a letter
// or '_' first) or quoted strings of printable ASCII. The only tag is
// "!!opencv-matrix"; a matrix (tagged, or any map with rows, cols, dt or
// data, which OpenCV would read as one) must hold exactly rows x cols x
// channels numbers under "data".
// Anything else (flow maps and JSON,
// anchors, block scalars, tabs in the indentation, control bytes, repeated
// keys, nesting deeper than 16) is refused with the line it is on.
//
// open_yaml_storage then hands OpenCV not the file but a copy that
// cv::FileStorage itself wrote from the parsed tree, so OpenCV's parser
// only ever reads its own writer's output.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

namespace sl3d {

// Larger files are refused before they are read: calibration YAML files
// are a few kilobytes (the maps live in binary files).
constexpr std::size_t kMaxYamlBytes = 1 << 20;

struct SL3D_EXPORT YamlNode {
  enum class Kind { kScalar, kMap, kSeq };
  Kind kind = Kind::kMap;
  int line = 0;         // 1-based line the node starts on
  std::string text;     // scalar: its text, quotes removed
  bool quoted = false;  // scalar: written in quotes, so always a string
  std::string tag;      // map: "opencv-matrix" for "!!opencv-matrix", else ""
  std::vector<std::pair<std::string, YamlNode>> entries;  // map, in file order
  std::vector<YamlNode> items;                            // sequence

  // The entry `key` of a map; null when absent or not a map.
  const YamlNode* find(const std::string& key) const;
  // Scalar that reads as a number: an integer, a decimal with fraction or
  // exponent, or .inf/.nan in YAML's spellings. Quoted scalars are strings.
  bool is_number() const;
  bool is_integer() const;  // digits with an optional sign
};

// Parses `text` into `root` (a map; an empty text gives an empty map).
// False, with `error` = "line N: problem", for anything outside the subset.
// Runs in time linear in the text; never throws but std::bad_alloc.
SL3D_EXPORT bool parse_yaml(const std::string& text, YamlNode& root, std::string& error);

// Reads `path` (a regular file of at most kMaxYamlBytes) and parses it.
// False with `error` saying why ("no such file", "line 3: ...").
SL3D_EXPORT bool read_yaml_file(const std::string& path, YamlNode& root, std::string& error);

// read_yaml_file, then opens `storage` for reading on the text that
// cv::FileStorage writes for the parsed tree. False, `storage` closed and
// `error` (may be null) set, when the file does not read or OpenCV refuses
// the copy. Never throws.
SL3D_EXPORT bool open_yaml_storage(const std::string& path, cv::FileStorage& storage,
                                   std::string* error = nullptr);

}  // namespace sl3d

#endif  // SL3D_CAMERA_YAML_READER_H_
