#include "board_family.h"

#include <new>

#include <sl3d/calibboard/QuillCalibBoardRecognizer.h>

#include "errors.h"

namespace sl3d {

BoardFamily parse_board_family(const std::string& command, const std::string& name) {
  if (name == "pellux") return BoardFamily::kPellux;
  if (name == "quill") return BoardFamily::kQuill;
  throw usage_error(command, "--board expects pellux or quill, got '" + name + "'");
}

RecognizerPtr make_recognizer(BoardFamily family) {
  iCalibBoardRecognizer* r = family == BoardFamily::kPellux
                                 ? CreateCalibBoardRecognizer()
                                 : new (std::nothrow) QuillCalibBoardRecognizer();
  if (r == nullptr) throw std::bad_alloc();
  return RecognizerPtr(r);
}

}  // namespace sl3d
