// The application's own class PreProcessor, unrelated to the library's
// internal class of that name (which is why this file includes no sl3d
// header). Recognition would find no circles if the library used it.

#include <opencv2/core.hpp>

class PreProcessor {
 public:
  cv::Mat binarize(cv::Mat& src);
};

// An all-black picture.
cv::Mat PreProcessor::binarize(cv::Mat& src) { return cv::Mat::zeros(src.size(), CV_8UC1); }

int application_binarize_nonzero(cv::Mat& image) {
  PreProcessor own;
  return cv::countNonZero(own.binarize(image));
}
