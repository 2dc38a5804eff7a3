#ifndef SL3D_CLI_BOARD_H_
#define SL3D_CLI_BOARD_H_

// `sl3d board`: a calibration board to print, and its key file.

#include <string>

#include <sl3d/patterns/calibration_board.h>

namespace sl3d {

// The smallest circle contour the key file of a printed board accepts,
// pixels: the rings' holes must be about 11 px across in every view.
constexpr double kPrintedBoardMinRadius = 4.0;

struct BoardPrint {
  BoardDesign design;
  int dpi = 300;
  cv::Size2d page;  // millimetres; zero: the board's own size
};

// Writes DIR/board.svg, DIR/board.png and DIR/board_params.yaml (DIR is
// created when missing), all or nothing; returns the PNG's size.
cv::Size write_board_print(const std::string& dir, const BoardPrint& print);

// Pixels per millimetre of a print at `dpi`.
inline double pixels_per_mm(int dpi) { return dpi / 25.4; }

}  // namespace sl3d

#endif  // SL3D_CLI_BOARD_H_
