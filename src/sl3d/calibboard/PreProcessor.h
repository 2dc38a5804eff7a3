#ifndef SL3D_CALIBBOARD_PREPROCESSOR_H_
#define SL3D_CALIBBOARD_PREPROCESSOR_H_

// Turns an 8-bit grey image of a calibration board into a binary image
// (0 and 255) in which the circle markers are white blobs, ready for the
// contour search of CircleMarkerSearcher.
//
// Configure with init_preproc, then call preprocess once per image. The
// steps run in a fixed order: inversion, median smoothing, gamma,
// histogram equalisation, binarisation; so gamma acts on the inverted image
// when both are on.

#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/calib_board_params.h>
#include <sl3d/export.h>

// Internal to the library (not exported from libsl3d.so); the header is
// installed because CalibBoardRecognizer derives from this class.
class PreProcessor {
 public:
  PreProcessor() = default;
  virtual ~PreProcessor();

  // Copies `p`; builds the 256-entry gamma table unless the gamma is
  // exactly 1.0. A gamma of 1.0 leaves an earlier table in place, unused.
  void init_preproc(PreProcParams& p);

  // Entry i of n = trunc(pow(i / (n - 1), gamma) * (n - 1) + 0.5), in
  // double; for n = 256 it maps 0 to 0 and 255 to 255.
  void gamma_init(int n);

  // dst(y, x) = low byte of gamma_table[src(y, x)] for the first cols bytes
  // of every row; no-op while the table is empty. dst may be src; it is
  // (re)allocated to src's size and type when it differs.
  void gamma_correction(cv::Mat& src, cv::Mat& dst);

  // A new binary image by bin_type: 0 threshold at bin_param0 (values above
  // it become 255), 1 Otsu, 2 adaptive mean with block size bin_param0 and
  // constant bin_param1; any other type gives an empty image.
  cv::Mat binarize(cv::Mat& src);

  // The whole chain on a working copy; `image` is not modified.
  cv::Mat preprocess(cv::Mat& image);

  std::vector<int> gamma_table;  // empty until a gamma other than 1.0 is set
  PreProcParams preproc_params;
};

#endif  // SL3D_CALIBBOARD_PREPROCESSOR_H_
