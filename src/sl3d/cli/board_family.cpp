#include "board_family.h"

#include <new>
#include <sstream>

#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>

#include "errors.h"

namespace sl3d {

namespace {

constexpr int kCols = 7, kRows = 5;
constexpr double kRadius = 8.0;
// Pellux: the O ring at circle (1, 3), X at (3, 3), Y at (1, 2).
constexpr int kPelluxOi = 1, kPelluxOj = 3;
// Quill: the ring at circle (4, 1).
constexpr int kQuillRi = 4, kQuillRj = 1;

BoardLayout base_layout(std::vector<BoardRing> rings) {
  BoardLayout layout;
  layout.circles_x = kCols;
  layout.circles_y = kRows;
  layout.spacing = kSynthSpacing;
  layout.radius = kRadius;
  layout.dark_circles = true;
  layout.rings = std::move(rings);
  return layout;
}

struct GridRecord {
  int n_x, n_y, origin_x, origin_y;
};

// The renderer's +i is the board's +x and its +j the board's -y, so the
// recognizer's grid runs from the far column: index (6 - i) * 5 + j.
GridRecord pellux_grid() { return {kCols, kRows, kCols - 1 - kPelluxOi, kPelluxOj}; }
// Facing the camera the ring's left neighbour is the board's +y and its
// upper one +x: the recognizer's columns are the rendered rows.
GridRecord quill_grid() { return {kRows, kCols, kQuillRj, kQuillRi}; }

// Grid column and row in the recognizer's numbering of rendered circle (i, j).
cv::Point recognizer_cell(BoardFamily family, int i, int j) {
  return family == BoardFamily::kPellux ? cv::Point(kCols - 1 - i, j) : cv::Point(j, i);
}

std::string params_text(BoardFamily family, const GridRecord& grid, double min_radius) {
  std::ostringstream out;
  out << "%YAML:1.0\n---\n"
      << "# " << family_name(family) << " board rendered by 'sl3d synth --boards'\n"
      << "# pre-processing: the circles are dark on a light board\n"
      << "do_reverse_bw: 1\n"
      << "bin_type: 1\n"
      << "# circle-marker search\n"
      << "min_radius: " << min_radius << "\n"
      << "# board\n"
      << "unit_length: " << kSynthSpacing << "\n"
      << "n_circles_x: " << grid.n_x << "\n"
      << "n_circles_y: " << grid.n_y << "\n"
      << "origin_x: " << grid.origin_x << "\n"
      << "origin_y: " << grid.origin_y << "\n";
  return out.str();
}

}  // namespace

BoardFamily parse_board_family(const std::string& command, const std::string& name) {
  if (name == "pellux") return BoardFamily::kPellux;
  if (name == "quill") return BoardFamily::kQuill;
  throw usage_error(command, "--board expects pellux or quill, got '" + name + "'");
}

const char* family_name(BoardFamily family) {
  return family == BoardFamily::kPellux ? "pellux" : "quill";
}

RecognizerPtr make_recognizer(BoardFamily family) {
  iCalibBoardRecognizer* r = family == BoardFamily::kPellux
                                 ? CreateCalibBoardRecognizer()
                                 : new (std::nothrow) QuillCalibBoardRecognizer();
  if (r == nullptr) throw std::bad_alloc();
  return RecognizerPtr(r);
}

SynthBoard synth_board(BoardFamily family, double min_radius) {
  const bool pellux = family == BoardFamily::kPellux;
  SynthBoard board;
  board.layout = base_layout(
      pellux ? three_ring_base_markers(kPelluxOi, kPelluxOj, kSynthHoleRadius)
             : one_ring_base_marker(kQuillRi, kQuillRj, kSynthHoleRadius));
  const GridRecord grid = pellux ? pellux_grid() : quill_grid();
  for (int j = 0; j < kRows; ++j) {
    for (int i = 0; i < kCols; ++i) {
      const cv::Point cell = recognizer_cell(family, i, j);
      board.truth_index.push_back(cell.x * grid.n_y + cell.y);
      board.truth_position.emplace_back(kSynthSpacing * (grid.origin_x - cell.x),
                                        kSynthSpacing * (grid.origin_y - cell.y), 0.0);
    }
  }
  board.params_text = params_text(family, grid, min_radius);
  return board;
}

// No view is exactly frontal: there every circle is equally round, and the
// search's three-sigma roundness filter then drops circles over pixel-level
// differences (at 800x600, for instance); 10 degrees of tilt avoid that.
const std::vector<ViewAngles>& synth_views(BoardFamily family) {
  static const std::vector<ViewAngles> pellux = {
      {10, 8, 3},    {25, 0, 0},     {0, 35, 90},    {30, 0, 180},
      {0, 40, 270},  {-35, 20, -60}, {20, -30, 135}, {-20, -40, 225}};
  static const std::vector<ViewAngles> quill = {
      {10, 40, 0}, {15, -35, 8}, {12, 30, -10}, {10, -40, -5}, {14, 35, 6}, {12, -32, -8}, {8, 38, 10}, {15, 32, 3}};
  return family == BoardFamily::kPellux ? pellux : quill;
}

}  // namespace sl3d
