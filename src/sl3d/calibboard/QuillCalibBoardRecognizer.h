#ifndef SL3D_CALIBBOARD_QUILLCALIBBOARDRECOGNIZER_H_
#define SL3D_CALIBBOARD_QUILLCALIBBOARDRECOGNIZER_H_

// The one-ring board family: a single ring (a circle with a smaller
// concentric hole) is the origin circle, and the grid directions come from
// the ring's own neighbours: +y of the board is the neighbour pointing most
// to the image's left, +x the farthest of the ring's listed neighbours. So
// the numbering is right only at poses where the ring's neighbour towards
// +x is its farthest one; there is no handedness check. The calibration
// driver makes this family on request; the exported factory never does.

#include <map>
#include <string>
#include <vector>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/export.h>

class SL3D_EXPORT QuillCalibBoardRecognizer : public CalibBoardRecognizer {
 public:
  QuillCalibBoardRecognizer() = default;
  ~QuillCalibBoardRecognizer() override;

  void destroy() override;
  // Codes: 0 "Success", 1 "ImageSize_Changed", 2 "Few_Contours",
  // 3 "BaseMarker_NotFound", 4 "N_BaseMarker_NotMatch" (never 5). On
  // failure `points` and the result picture are left as they were; on
  // success circles the walk did not reach stay at FLT_MAX.
  int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) override;
  std::string get_error_name(int code) override;
  // Marks the ring as the family of three rings does (rim flag 2, hole 0)
  // and then gives the rim the mean size of rim and hole: width =
  // float(w_rim + w_hole) * 0.5, height likewise. Returns the rim.
  int basemarker_process(int marker, int inner, std::vector<int>& flags) override;

  // From the neighbour slots of base_markers[0]: dir_y = the unit vector
  // with the strictly highest -u.x (first wins ties); dir_x = the unit
  // vector of the last non-empty slot, whichever it is (it may equal
  // dir_y). Without neighbours both keep their values.
  void set_direction();

  static std::map<int, std::string> errors;
};

#endif  // SL3D_CALIBBOARD_QUILLCALIBBOARDRECOGNIZER_H_
