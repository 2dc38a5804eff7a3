#ifndef SL3D_CLI_SYNTH_BOARDS_H_
#define SL3D_CLI_SYNTH_BOARDS_H_

#include <array>
#include <string>
#include <vector>

#include <sl3d/sim/calibration_set.h>

#include "board_family.h"

namespace sl3d {

struct BoardSynthRequest {
  std::string dir;
  BoardFamily family = BoardFamily::kPellux;
  int views = 0;  // 0: every pose of the family
  int width = 0;
  int height = 0;
  double focal_px = 0.0;
  double noise = 0.0;  // grey levels
  double blur = 0.0;   // pixels
  bool stereo = false;  // a calibration set of both raw cameras
};

// Writes DIR/board_NN.png, DIR/board_params.yaml and DIR/truth.csv; with
// `stereo` a calibration set instead (write_stereo_boards).
int run_synth_boards(const BoardSynthRequest& request);

// A calibration set of the virtual sensor's raw cameras: the family's
// calibration board (11 x 8 circles, 30 mm apart) at 12 poses 600 to
// 1000 mm away, seen by both cameras.
struct StereoBoardSet {
  SynthBoard board;
  std::array<SimCamera, 2> cameras;
  std::vector<StereoBoardView> views;
};
StereoBoardSet render_stereo_boards(BoardFamily family, int width, int height,
                                    const BoardImaging& imaging);
// The same for `board` at the same poses, drawn from `texture` when given
// (the bitmap of the board's design).
StereoBoardSet render_stereo_boards(const SynthBoard& board, int width, int height,
                                    const BoardImaging& imaging,
                                    const BoardTexture* texture = nullptr);

// Writes DIR/left_NN.png, DIR/right_NN.png, DIR/board_params.yaml,
// DIR/truth.csv and the cameras' true calibration directory DIR/true_calib.
// Returns the image paths, left and right.
std::array<std::vector<std::string>, 2> write_stereo_boards(const StereoBoardSet& set,
                                                            const std::string& dir);

}  // namespace sl3d

#endif  // SL3D_CLI_SYNTH_BOARDS_H_
