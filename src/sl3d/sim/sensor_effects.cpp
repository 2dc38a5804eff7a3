#include <sl3d/sim/sensor_effects.h>

#include <opencv2/imgproc.hpp>

namespace sl3d {
namespace detail {

cv::Mat blur_noise_quantise(const cv::Mat& radiance, double blur_sigma_px, double noise_sigma,
                            std::uint64_t seed) {
  cv::Mat img = radiance;
  if (blur_sigma_px > 0.0) cv::GaussianBlur(radiance, img, cv::Size(0, 0), blur_sigma_px);
  if (noise_sigma > 0.0) {
    cv::Mat noise(img.size(), CV_32F);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::NORMAL, 0.0, noise_sigma);
    img = img + noise;
  }
  cv::Mat out;
  img.convertTo(out, CV_8U);  // rounds and saturates to 0..255
  return out;
}

}  // namespace detail
}  // namespace sl3d
