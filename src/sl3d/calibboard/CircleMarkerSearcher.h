#ifndef SL3D_CALIBBOARD_CIRCLEMARKERSEARCHER_H_
#define SL3D_CALIBBOARD_CIRCLEMARKERSEARCHER_H_

// Circle-marker search: finds the circle markers of a calibration board in
// the binary image made by PreProcessor.
//
// Every contour of the image is a candidate (outer boundaries and holes
// alike). Contours whose length cannot belong to a circle of the allowed
// radius range are dropped before any fitting; the rest are fitted with a
// RotatedEllipse by principal-component analysis and kept when the fit is
// good, the size plausible and the roundness close to that of the others.
// The surviving contours and ellipses feed the grid connection.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/export.h>

// An ellipse fitted to a contour by PCA of its points: the centre is the
// mean of the points (not the centre of the ellipse's image conic, so a
// tilted circle carries the perspective offset of its contour), the axes
// are the principal directions and the sizes the full spread along them.
class RotatedEllipse {
 public:
  RotatedEllipse();

  // Fills the ellipse from `contour` and returns the fraction of its points
  // that lie in the ring between the ellipses with semi-axes (a - t, b - t)
  // and (a + t, b + t), t = `tolerance` pixels. Fewer than 4 points score
  // 0.0 and leave the ellipse unchanged; a degenerate ring (a zero
  // semi-axis) scores 0.0.
  double fit(std::vector<cv::Point>& contour, double tolerance);

  // Distance from `center` to the rim along `direction` (any length, not
  // zero): with (p, q) = axes * direction, b when p is 0, else the rim
  // point of slope q / p in the ellipse's own frame.
  double getRadius(cv::Vec2d direction);

  cv::Mat axes;         // 2 x 2 double, unit axes as rows, largest spread first
  cv::Point2d center;   // mean of the contour points, pixels
  double width = 0.0;   // full spread along the first axis
  double height = 0.0;  // full spread along the second axis
  double a = 0.0;       // width / 2
  double b = 0.0;       // height / 2
  double angle = 0.0;   // direction of the first axis, degrees in -180..180
};

// Internal to the library (not exported from libsl3d.so); the header is
// installed because CalibBoardRecognizer derives from this class (through ConnectionFinder).
class CircleMarkerSearcher {
 public:
  // Holds the CircleMarkerParams defaults and their length limits.
  CircleMarkerSearcher();

  // Copies the record (its two keyless words become the accepted image
  // width and height) and derives the contour length limits
  // trunc(2 pi radius + 0.5) from the radius range.
  void init_searcher(CircleMarkerParams& p);

  // Finds the markers of `binary` (8-bit, 0/255). True when at least
  // n_minimum survive every filter; then `contours` and `ellipses` hold
  // them in contour-search order. On false both keep the previous search's
  // contents, which must not be used.
  bool search(cv::Mat& binary);

  // Flag 0 for contours with fewer than min_length or more than max_length
  // points; returns the number still flagged.
  int check_length(std::vector<int>& flags, std::vector<std::vector<cv::Point>>& all);

  // Fits every flagged contour with tolerance 1.5 px; it stays flagged when
  // the score reaches fitscore and both full spreads (width and height, not
  // the semi-axes) lie in [min_radius, max_radius]. Returns the count kept.
  int fit_ellipse(std::vector<std::vector<cv::Point>>& all, std::vector<int>& flags,
                  std::vector<RotatedEllipse>& fitted);

  // Roundness r = smaller / larger spread. Flagged ellipses whose r lies
  // outside mean +- 3 population standard deviations lose their flag.
  // Returns the count kept.
  int check_diameter_rate(std::vector<RotatedEllipse>& fitted, std::vector<int>& flags);

  // With a non-zero debug_show_scale: shows `image` scaled in window
  // `name`, writes it unscaled to name + ".ppm" (colour) or ".pgm" (grey)
  // when `save`, and blocks until a key is pressed. Otherwise nothing.
  void debug_show(cv::Mat& image, std::string name, bool save);

  double fitscore;
  std::int32_t n_minimum;
  std::int32_t image_width;   // accepted image size; 0 until an image is seen
  std::int32_t image_height;
  double debug_show_scale;
  double max_radius;
  double min_radius;

  std::vector<std::vector<cv::Point>> contours;  // accepted contours
  std::vector<RotatedEllipse> ellipses;          // their fits, same order
  std::int32_t max_length;  // contour length limits, in points
  std::int32_t min_length;
};

#endif  // SL3D_CALIBBOARD_CIRCLEMARKERSEARCHER_H_
