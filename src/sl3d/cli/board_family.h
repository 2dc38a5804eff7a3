#ifndef SL3D_CLI_BOARD_FAMILY_H_
#define SL3D_CLI_BOARD_FAMILY_H_

// The two circle-marker board families the tool knows: their recognizers
// and the boards `sl3d synth --boards` renders for them.

#include <memory>
#include <string>
#include <vector>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/sim/board_renderer.h>

namespace sl3d {

enum class BoardFamily { kPellux, kQuill };

// "pellux" or "quill"; anything else is a usage error of `command`.
BoardFamily parse_board_family(const std::string& command, const std::string& name);
const char* family_name(BoardFamily family);

struct RecognizerDeleter {
  void operator()(iCalibBoardRecognizer* r) const { r->destroy(); }
};
using RecognizerPtr = std::unique_ptr<iCalibBoardRecognizer, RecognizerDeleter>;

// A fresh recognizer of the family with default parameters.
RecognizerPtr make_recognizer(BoardFamily family);

// The rendered board of a family: a 7 x 5 grid of dark circles, 20 mm
// apart, with the family's ring base markers.
struct SynthBoard {
  BoardLayout layout;
  // The recognizer's marker index of rendered circle (i, j) and its board
  // position, worked out from the ring placement.
  std::vector<int> truth_index;     // by j * circles_x + i
  std::vector<cv::Point3d> truth_position;
  std::string params_text;          // a key file `sl3d detect` reads
};

// `min_radius` goes into the key file: the smallest circle contour, in
// pixels, the search accepts (the rings' holes must pass it).
SynthBoard synth_board(BoardFamily family, double min_radius);

// Board geometry, millimetres.
constexpr double kSynthSpacing = 20.0;
constexpr double kSynthHoleRadius = 4.5;

// Poses (tilt about the board's x, about its y, roll; degrees) the family
// recognizes. The one-ring family takes its +x from the ring's farthest
// neighbour, so its board is always turned 30-40 degrees about its y axis.
struct ViewAngles {
  double tilt_x, tilt_y, roll;
};
const std::vector<ViewAngles>& synth_views(BoardFamily family);

}  // namespace sl3d

#endif  // SL3D_CLI_BOARD_FAMILY_H_
