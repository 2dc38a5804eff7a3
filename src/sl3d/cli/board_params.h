#ifndef SL3D_CLI_BOARD_PARAMS_H_
#define SL3D_CLI_BOARD_PARAMS_H_

// The three parameter records of a board recognizer, read from a key file
// (key_file.h). Every key belongs to one record and has a range that real
// boards and cameras stay inside.

#include <string>

#include <sl3d/calibboard/calib_board_params.h>

namespace sl3d {

struct BoardRecords {
  PreProcParams pre;
  CircleMarkerParams marker;
  CalibBoardParams board;
  // The tool's own key "circle_radius": the circles' radius (a ring's outer
  // one) in the unit of unit_length, which the calibration's circle-centre
  // refinement needs; 0 when the file does not give it.
  double circle_radius = 0.0;
};

// The key file lines `sl3d board` and `sl3d synth --boards` append for the
// circles' radius (in the unit of unit_length).
std::string circle_radius_key_text(double radius);

// Reads and checks the file; an unknown or repeated key, a value that is
// not a number, out of its range or that the recognizer cannot use is an
// error naming the file, the line and the key. Keys left out keep the
// records' defaults; unit_length and the two counts must be given.
BoardRecords read_board_params(const std::string& path);

// The keys of each record, comma separated (for help texts).
std::string pre_proc_keys();
std::string circle_marker_keys();
std::string calib_board_keys();
std::string tool_board_keys();

}  // namespace sl3d

#endif  // SL3D_CLI_BOARD_PARAMS_H_
