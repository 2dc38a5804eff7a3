#ifndef SL3D_TESTS_INTERPOSITION_APPLICATION_CLASSES_H_
#define SL3D_TESTS_INTERPOSITION_APPLICATION_CLASSES_H_

#include <opencv2/core.hpp>

// Non-zero pixels of the application's own PreProcessor::binarize(image).
int application_binarize_nonzero(cv::Mat& image);

// Mangled names of the two functions the application defines.
constexpr const char* kApplicationBinarize = "_ZN12PreProcessor8binarizeERN2cv3MatE";
constexpr const char* kApplicationAcceptImageSize =
    "_ZN20CalibBoardRecognizer17accept_image_sizeERKN2cv3MatE";

#endif  // SL3D_TESTS_INTERPOSITION_APPLICATION_CLASSES_H_
