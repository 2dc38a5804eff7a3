#ifndef SL3D_SIM_SENSOR_EFFECTS_H_
#define SL3D_SIM_SENSOR_EFFECTS_H_

#include <cstdint>

#include <opencv2/core.hpp>

namespace sl3d {
namespace detail {

// The camera's last steps on a rendered radiance image (CV_32F grey
// levels): optical blur (Gaussian, sigma in pixels; 0 = none), sensor noise
// (Gaussian, grey levels, from `seed`; 0 = none), then rounding and
// saturation to 8 bits.
cv::Mat blur_noise_quantise(const cv::Mat& radiance, double blur_sigma_px, double noise_sigma,
                            std::uint64_t seed);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_SIM_SENSOR_EFFECTS_H_
