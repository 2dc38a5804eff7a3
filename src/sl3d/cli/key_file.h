#ifndef SL3D_CLI_KEY_FILE_H_
#define SL3D_CLI_KEY_FILE_H_

// Key files: the method parameters of `scan --params` and the board
// parameters of `detect`, `calibrate` and `demo`. One dialect for all of
// them: a flat YAML map of numbers as cv::FileStorage writes it or as
// written by hand (the subset of sl3d/camera/yaml_reader.h), e.g.
//
//   %YAML:1.0
//   ---
//   unit_length: 20    # mm
//   n_circles_x: 7
//
// Every key must be known, given once, a number of its kind and inside its
// range; anything else is one error naming the file, the line and the key.

#include <map>
#include <string>
#include <vector>

#include "errors.h"

namespace sl3d {

enum class KeyKind { kBool, kInt, kReal };

struct KeyRule {
  const char* name;
  KeyKind kind;
  double lo;  // inclusive, unless lo_open
  double hi;  // inclusive
  bool lo_open = false;
};

struct KeyValues {
  std::map<std::string, double> values;  // the keys present
  std::map<std::string, int> lines;      // where each was given
};

// Reads and checks `path` against `rules`; keys left out are absent.
KeyValues read_key_file(const std::string& path, const std::vector<KeyRule>& rules);

// "PATH: line N: PROBLEM" for a check that spans keys (line 0: no line).
CliError key_error(const std::string& path, int line, const std::string& problem);

// The names of `rules`, comma separated (for help texts and messages).
std::string key_names(const std::vector<KeyRule>& rules);

}  // namespace sl3d

#endif  // SL3D_CLI_KEY_FILE_H_
