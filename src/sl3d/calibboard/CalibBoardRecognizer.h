#ifndef SL3D_CALIBBOARD_CALIBBOARDRECOGNIZER_H_
#define SL3D_CALIBBOARD_CALIBBOARDRECOGNIZER_H_

// Calibration-board recognizers: take one 8-bit grey image of a circle-grid
// board and return, for every circle of the board, its image centre in a
// fixed numbering that ties it to a known 3-D position on the board.
//
//   iCalibBoardRecognizer* r = CreateCalibBoardRecognizer();
//   r->set_parameters(pre, marker, board);
//   std::vector<cv::Point2f> points;
//   if (r->recognize(image, points) == 0)
//     r->corresponding_points(points, image_points, board_points);
//   r->destroy();
//
// Numbering: a circle at grid offset (gx, gy) from the origin circle
// (origin_x, origin_y) has marker index (origin_x - gx) * n_circles_y -
// gy + origin_y and board position (unit_length * gx, unit_length * gy, 0).
// An image point whose x is FLT_MAX is a circle that was not found.
//
// Ownership: the caller owns a recognizer from its factory until destroy()
// (or delete). Threads: the families' error-name tables are static, and
// get_error_name adds an entry for an unknown code, and the result colour
// table is shared; using recognizers from several threads at once needs
// the caller's own locking.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/ConnectionFinder.h>
#include <sl3d/calibboard/PreProcessor.h>
#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/export.h>

// The exported interface. The order of the virtual operations is part of the
// binary interface and must not change.
class SL3D_EXPORT iCalibBoardRecognizer {
 public:
  // delete this.
  virtual void destroy() = 0;
  virtual ~iCalibBoardRecognizer();
  // Accepts the board (unit_length > 0, both counts >= 1) and configures
  // search and pre-processing; false leaves every setting as it was.
  virtual bool set_parameters(PreProcParams& pre, CircleMarkerParams& marker,
                              CalibBoardParams& board) = 0;
  // Recognizes the board in `image` (8-bit grey). Returns an error code,
  // 0 on success; then `points` holds one entry per marker index.
  virtual int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) = 0;
  // The name of an error code; an unknown code is added with name "".
  virtual std::string get_error_name(int code) = 0;
  // Size of the images accepted; (0, 0) before the first one.
  virtual cv::Size image_size() = 0;
  virtual cv::Rect get_marker_range() const = 0;
  virtual int get_marker_index(cv::Point grid) const = 0;
  virtual cv::Point3f get_3d_position(int index) const = 0;
  // Pairs the found points with their board positions.
  virtual int corresponding_points(const std::vector<cv::Point2f>& points,
                                   std::vector<cv::Point2f>& out2d,
                                   std::vector<cv::Point3f>& out3d) = 0;
  virtual int corresponding_points(const std::vector<cv::Point2f>& points0,
                                   const std::vector<cv::Point2f>& points1,
                                   std::vector<cv::Point2f>& out0,
                                   std::vector<cv::Point2f>& out1,
                                   std::vector<cv::Point3f>& out3d) = 0;
  virtual void save_result_image(std::string path) = 0;
  virtual void copy_result_image(cv::Mat& dst) = 0;
  virtual void show_result_image() = 0;
};

// Creates the three-ring board family (PelluxCalibBoardRecognizer) with
// default parameters; null when memory is exhausted. Release with destroy().
extern "C" SL3D_EXPORT iCalibBoardRecognizer* CreateCalibBoardRecognizer();

// Everything but the board-specific recognition: parameters, numbering,
// correspondences and the result picture. The families implement
// recognize, get_error_name and basemarker_process.
class SL3D_EXPORT CalibBoardRecognizer : public iCalibBoardRecognizer,
                                         protected ConnectionFinder,
                                         protected PreProcessor {
 public:
  CalibBoardRecognizer();
  ~CalibBoardRecognizer() override;

  void destroy() override;
  bool set_parameters(PreProcParams& pre, CircleMarkerParams& marker,
                      CalibBoardParams& board) override;
  cv::Size image_size() override;
  // Rect(1, 1, n_circles_x, n_circles_y): the corner is fixed at (1, 1) and
  // does not follow the origin.
  cv::Rect get_marker_range() const override;
  // (origin_x - gx) * n_circles_y - gy + origin_y; no range check.
  int get_marker_index(cv::Point grid) const override;
  // positions3d[index]; no range check.
  cv::Point3f get_3d_position(int index) const override;
  // Empties the outputs and appends, for every marker index k whose point
  // is found (x not exactly FLT_MAX; NaN counts as found), points[k] and
  // positions3d[k]. `points` should hold n_markers entries, as recognize
  // leaves it; entries it lacks count as not found, so an empty list (an
  // image without a result) pairs nothing. Returns the count.
  int corresponding_points(const std::vector<cv::Point2f>& points,
                           std::vector<cv::Point2f>& out2d,
                           std::vector<cv::Point3f>& out3d) override;
  // The same over a stereo pair: only markers found in both images.
  int corresponding_points(const std::vector<cv::Point2f>& points0,
                           const std::vector<cv::Point2f>& points1,
                           std::vector<cv::Point2f>& out0, std::vector<cv::Point2f>& out1,
                           std::vector<cv::Point3f>& out3d) override;
  // cv::imwrite with default parameters; OpenCV's errors pass through.
  void save_result_image(std::string path) override;
  // Into dst's own buffer when it has the picture's size and type, else
  // dst becomes a new deep copy.
  void copy_result_image(cv::Mat& dst) override;
  // cv::imshow in the window "result".
  void show_result_image() override;

  int basemarker_process(int marker, int inner, std::vector<int>& flags) override = 0;

  // Accepts a board with unit_length > 0, both counts >= 1 and a marker
  // count that fits an int32 (else false, nothing changed) and derives
  // n_markers and positions3d: entry
  // i * n_circles_y + j = unit_length * (origin_x - i, origin_y - j, 0),
  // formed in single precision.
  bool init_recognizer(CalibBoardParams& board);

 protected:
  // Places ellipse `marker` at marker `index` and walks its neighbour slots
  // depth first, in slot order. A neighbour along dir_x (|px| > |py|) steps
  // the index by -/+ n_circles_y, otherwise along dir_y by -/+ 1; diagonal
  // (|px| == |py|) counts as y. Only 0 <= next < n_markers is checked, so a
  // y step off the end of a column lands in the next column; the first walk
  // to reach an index keeps it.
  void numbering(int marker, int index, std::vector<cv::Point2f>& points,
                 std::vector<int>& owner);

  // result_image = `image` in colour with every placed marker filled in the
  // colour of its square ring around the origin; base markers as a thick
  // rim with a small dot.
  void make_dbgimg(cv::Mat& image, std::vector<int>& owner);

  // Of a ring's two contours the one with more points is the rim (equal
  // counts: `inner`); it gets flag 2 and the other flag 0. Returns the rim.
  int mark_ring(int marker, int inner, std::vector<int>& flags);

  // Stores the size of the first image and checks every later one against
  // it; false when it differs.
  bool accept_image_size(const cv::Mat& image);

  CalibBoardParams board;
  std::int32_t n_markers = 0;
  std::vector<cv::Point3f> positions3d;  // by marker index
  cv::Point2f dir_x;  // image direction of the board's +x, set by the family
  cv::Point2f dir_y;  // image direction of the board's +y
  cv::Mat result_image;
};

namespace sl3d {
namespace detail {

// Unit vector from `from` to `to`: the difference in single precision, its
// length through a double square root.
cv::Point2f unit_vector(const cv::Point2d& from, const cv::Point2d& to);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_CALIBBOARD_CALIBBOARDRECOGNIZER_H_
