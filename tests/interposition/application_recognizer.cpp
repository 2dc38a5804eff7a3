// The program defines one function of the library's exported class
// CalibBoardRecognizer again. Recognition would answer "ImageSize_Changed"
// for every image if the library called this definition.

#include <opencv2/core.hpp>

#include <sl3d/calibboard/CalibBoardRecognizer.h>

bool CalibBoardRecognizer::accept_image_size(const cv::Mat&) { return false; }
