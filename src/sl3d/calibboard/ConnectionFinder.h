#ifndef SL3D_CALIBBOARD_CONNECTIONFINDER_H_
#define SL3D_CALIBBOARD_CONNECTIONFINDER_H_

// Grid connection: works out which of the circle markers found by
// CircleMarkerSearcher belong to the board's grid, which are each other's
// grid neighbours, and which are base markers (rings: a circle with a
// second, smaller contour nested inside it).
//
// find() measures all centre distances, cuts pairs too far apart to be
// neighbours, keeps the largest connected group, asks the board family
// (basemarker_process) what each ring means, drops nested and outsized
// contours, and lists up to four nearest neighbours per marker.
//
// Markers are addressed by their index in `ellipses`. A per-marker flag
// travels between the steps: 1 candidate, 0 dropped, 2 a ring kept in the
// grid but out of the base-marker search and the length filter.

#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/CircleMarkerSearcher.h>
#include <sl3d/calibboard/union_find.h>
#include <sl3d/export.h>

// Internal to the library (not exported from libsl3d.so); the header is
// installed because CalibBoardRecognizer derives from this class.
class ConnectionFinder : public CircleMarkerSearcher {
 public:
  ConnectionFinder() = default;
  virtual ~ConnectionFinder();

  // Board-specific handling of a ring: `marker` is a candidate and `inner`
  // the contour whose centre lies within its smaller semi-axis. May change
  // `flags`; the returned ellipse index is appended to base_markers.
  virtual int basemarker_process(int marker, int inner, std::vector<int>& flags) = 0;

  // Runs the whole connection on the current `ellipses`. Fills
  // base_markers and connections and returns true when at least one base
  // marker was found; on false `connections` keeps its previous contents.
  bool find();

  // N x N centre distances; the diagonal is DBL_MAX (not connected).
  cv::Mat_<double> get_distance_matrix();

  // Cuts D[i][j] (sets DBL_MAX) when trunc(10 |d| / Di) or
  // trunc(10 |d| / (2 getRadius_i(d))) exceeds trunc(10 (0.1 +
  // distance_between_circles)), Di the larger spread of ellipse i. Only row
  // i is judged from ellipse i, so the matrix may turn one-sided: a large
  // circle can reach a small one that does not reach it back.
  void check_distance_matrix(cv::Mat_<double>& D);

  // Keeps the largest connected set (ties: the lowest root index); every
  // other marker gets flag 0 and its row of D becomes DBL_MAX.
  void remain_largest_group(std::vector<int>& flags, cv::Mat_<double>& D);

  // For every marker with flag 1, in index order: the nearest connected
  // centre strictly within its smaller semi-axis makes it a ring, handed to
  // basemarker_process. True when at least one base marker was appended.
  bool search_base_marker(std::vector<int>& flags, cv::Mat_<double>& D);

  // Contour length at position n/2 of the non-zero-flagged markers' lengths
  // (for an even count the upper middle value); 0 when none is flagged.
  size_t get_median_contour_length(std::vector<int>& flags);

  // Flag 1 markers with at most (L + 2) / 4 or at least 4 L contour points,
  // L the median length, get flag 0: inner contours and outsized blobs.
  void remove_inlier(std::vector<int>& flags, cv::Mat_<double>& D);

  // Per marker the indices of its up to four nearest connected, flagged
  // markers, nearest first (equal distances: lower index first), -1 for an
  // empty slot. Dropped markers (flag 0) get (0, 0, 0, 0), not -1s: test
  // the flag before reading an entry.
  std::vector<cv::Vec4i> find_connected(std::vector<int>& flags, cv::Mat_<double>& D);

  // Largest neighbour centre distance in marker diameters, less the fixed
  // margin of 0.1 added in check_distance_matrix.
  double distance_between_circles = 1.2;
  std::vector<cv::Vec4i> connections;  // per ellipse, see find_connected
  std::vector<int> base_markers;       // as returned by basemarker_process

 private:
  void debug_show_connections(const std::vector<int>& flags);
};

#endif  // SL3D_CALIBBOARD_CONNECTIONFINDER_H_
