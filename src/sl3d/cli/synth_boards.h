#ifndef SL3D_CLI_SYNTH_BOARDS_H_
#define SL3D_CLI_SYNTH_BOARDS_H_

#include <string>

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
};

// Writes DIR/board_NN.png, DIR/board_params.yaml and DIR/truth.csv.
int run_synth_boards(const BoardSynthRequest& request);

}  // namespace sl3d

#endif  // SL3D_CLI_SYNTH_BOARDS_H_
