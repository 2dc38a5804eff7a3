#ifndef SL3D_CLI_BOARD_FAMILY_H_
#define SL3D_CLI_BOARD_FAMILY_H_

// The two circle-marker board families as the tool names them, and their
// recognizers.

#include <memory>
#include <string>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/sim/board_families.h>

namespace sl3d {

// "pellux" or "quill"; anything else is a usage error of `command`.
BoardFamily parse_board_family(const std::string& command, const std::string& name);

struct RecognizerDeleter {
  void operator()(iCalibBoardRecognizer* r) const { r->destroy(); }
};
using RecognizerPtr = std::unique_ptr<iCalibBoardRecognizer, RecognizerDeleter>;

// A fresh recognizer of the family with default parameters.
RecognizerPtr make_recognizer(BoardFamily family);

}  // namespace sl3d

#endif  // SL3D_CLI_BOARD_FAMILY_H_
