#ifndef SL3D_PYTHON_BOARDS_H_
#define SL3D_PYTHON_BOARDS_H_

// The recognizer's three parameter records as the bindings handle them,
// shared with the virtual sensor's boards.

#include <pybind11/pybind11.h>

#include <sl3d/calibboard/calib_board_params.h>

namespace sl3d {
namespace python {

struct BoardRecords {
  PreProcParams pre;
  CircleMarkerParams marker;
  CalibBoardParams board;
};

// Circles on the board: n_circles_x * n_circles_y.
long n_markers(const BoardRecords& records);

// Applies three dicts (None: unchanged) through the records' own key
// reading, after checking names and value types, and checks the result
// for values the recognizer cannot work with. `records` changes only when
// everything is valid.
void update_records(BoardRecords& records, const pybind11::handle& pre,
                    const pybind11::handle& marker, const pybind11::handle& board);

// {"pre": {...}, "marker": {...}, "board": {...}}
pybind11::dict records_dict(const BoardRecords& records);

}  // namespace python
}  // namespace sl3d

#endif  // SL3D_PYTHON_BOARDS_H_
