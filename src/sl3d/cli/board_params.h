#ifndef SL3D_CLI_BOARD_PARAMS_H_
#define SL3D_CLI_BOARD_PARAMS_H_

// The three parameter records of a board recognizer, read from a key file:
// flat YAML as cv::FileStorage writes it ("%YAML:1.0", "---") or plain
// `key: value` lines, with '#' comments and blank lines. Every key belongs
// to one record; values are numbers.

#include <string>

#include <sl3d/calibboard/calib_board_params.h>

namespace sl3d {

struct BoardRecords {
  PreProcParams pre;
  CircleMarkerParams marker;
  CalibBoardParams board;
};

// Reads and checks the file; an unknown or repeated key, a value that is
// not a number or that the recognizer cannot use is an error naming the
// file (and the line or key). Keys left out keep the records' defaults.
BoardRecords read_board_params(const std::string& path);

// The keys of each record, comma separated (for help texts).
std::string pre_proc_keys();
std::string circle_marker_keys();
std::string calib_board_keys();

}  // namespace sl3d

#endif  // SL3D_CLI_BOARD_PARAMS_H_
