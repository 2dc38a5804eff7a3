#ifndef SL3D_CALIBBOARD_PELLUXCALIBBOARDRECOGNIZER_H_
#define SL3D_CALIBBOARD_PELLUXCALIBBOARDRECOGNIZER_H_

// The three-ring board family. Three circles are rings (a circle with a
// smaller concentric hole): O, the origin circle at grid (0, 0); X on the
// board's x axis two steps from O with a plain circle, the middle marker,
// between them; and Y next to O on the board's y axis. X has no ring among
// its neighbours, O and Y are each other's neighbours. The board is
// accepted only with Y on the side of the O-to-X line that fixes its
// handedness: image cross product dir_x x dir_y < 0 (with image y pointing
// down, +y of the board lies counter-clockwise of +x, as seen in the image).
// This is the family CreateCalibBoardRecognizer makes.

#include <map>
#include <string>
#include <vector>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/export.h>

class SL3D_EXPORT PelluxCalibBoardRecognizer : public CalibBoardRecognizer {
 public:
  PelluxCalibBoardRecognizer() = default;
  ~PelluxCalibBoardRecognizer() override;

  void destroy() override;
  // Codes: 0 "Success", 1 "ImageSize_Changed", 2 "Few_Contours",
  // 3 "BaseMarker_NotFound", 4 "N_BaseMarker_NotMatch",
  // 5 "BaseMarker_ClassifyFailure". On failure `points` and the result
  // picture are left as they were. Success means the walk from O ran; the
  // circles it did not reach stay at FLT_MAX.
  int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) override;
  std::string get_error_name(int code) override;
  // The contour with more points is the ring's rim (equal counts: `inner`);
  // it gets flag 2, the other 0. Returns the rim.
  int basemarker_process(int marker, int inner, std::vector<int>& flags) override;

  // True when none of b's neighbours is a base marker.
  bool is_X_marker(int b);
  // The lowest ellipse index found exactly twice among the neighbours of all
  // base markers (the circle between O and X), or -1.
  int search_mid_marker();
  // True when `mid` is one of b's neighbours.
  bool is_O_marker(int b, int mid);
  // Sets dir_x (o to x) and dir_y (o to y) as unit vectors and returns
  // whether dir_x.x * dir_y.y - dir_x.y * dir_y.x < 0.
  bool is_Y_marker(int o, int x, int y);
  // Tells the first three base markers apart; false when they do not fit.
  bool init_numbering(int& o, int& x, int& y);

  static std::map<int, std::string> errors;

 private:
  void debug_show_base_markers(cv::Mat& image, int o, int x, int y);
};

#endif  // SL3D_CALIBBOARD_PELLUXCALIBBOARDRECOGNIZER_H_
