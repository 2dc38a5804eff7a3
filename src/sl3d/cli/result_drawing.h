#ifndef SL3D_CLI_RESULT_DRAWING_H_
#define SL3D_CLI_RESULT_DRAWING_H_

// Marks on a recognizer's result picture that tell a right numbering from a
// mirrored or shifted one: the library's picture colours circles by their
// ring around the origin, which looks the same either way.

#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/calibboard/CalibBoardRecognizer.h>

namespace sl3d {

// Writes each found circle's marker index on it and draws the board's x
// (red) and y (green) axes from the origin, two spacings long, where the
// board's frame lies in the image: a homography fitted to the numbered
// circles (no axes with fewer than four). `points` by marker index, FLT_MAX
// for circles not found.
void annotate_result(cv::Mat& picture, const iCalibBoardRecognizer& recognizer,
                     const std::vector<cv::Point2f>& points);

}  // namespace sl3d

#endif  // SL3D_CLI_RESULT_DRAWING_H_
