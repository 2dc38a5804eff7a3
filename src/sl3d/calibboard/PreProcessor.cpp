#include <sl3d/calibboard/PreProcessor.h>

#include <cmath>

#include <opencv2/imgproc.hpp>

// Out of line so that the vtable and type info live in the library.
PreProcessor::~PreProcessor() = default;

void PreProcessor::init_preproc(PreProcParams& p) {
  preproc_params = p;
  if (preproc_params.gamma_correction != 1.0) gamma_init(256);
}

void PreProcessor::gamma_init(int n) {
  gamma_table.resize(n);
  const double top = n - 1;
  for (int i = 0; i < n; ++i) {
    const double v = std::pow(i / top, preproc_params.gamma_correction) * top + 0.5;
    gamma_table[i] = sl3d::detail::truncate_to_int32(v);
  }
}

void PreProcessor::gamma_correction(cv::Mat& src, cv::Mat& dst) {
  if (gamma_table.empty()) return;
  if (dst.data != src.data || dst.size() != src.size() || dst.type() != src.type())
    dst.create(src.size(), src.type());
  for (int y = 0; y < src.rows; ++y) {
    const unsigned char* in = src.ptr<unsigned char>(y);
    unsigned char* out = dst.ptr<unsigned char>(y);
    for (int x = 0; x < src.cols; ++x)
      out[x] = static_cast<unsigned char>(gamma_table[in[x]] & 0xFF);
  }
}

cv::Mat PreProcessor::binarize(cv::Mat& src) {
  cv::Mat dst;
  switch (preproc_params.bin_type) {
    case 0:
      cv::threshold(src, dst, preproc_params.bin_param0, 255, cv::THRESH_BINARY);
      break;
    case 1:
      cv::threshold(src, dst, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
      break;
    case 2:
      cv::adaptiveThreshold(src, dst, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY,
                            preproc_params.bin_param0, preproc_params.bin_param1);
      break;
    default:
      break;
  }
  return dst;
}

cv::Mat PreProcessor::preprocess(cv::Mat& image) {
  cv::Mat work;
  if (preproc_params.do_reverse_bw)
    cv::bitwise_not(image, work);
  else
    work = image.clone();
  if (preproc_params.do_smoothing) cv::medianBlur(work, work, 3);
  if (preproc_params.gamma_correction != 1.0) gamma_correction(work, work);
  if (preproc_params.do_equalize_hist) cv::equalizeHist(work, work);
  return binarize(work);
}
