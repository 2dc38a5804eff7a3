// `sl3d patterns --check DIR`: how a set of phase-shift captures is exposed,
// frame by frame, judged by the thresholds the generator itself applies, so
// that exposure and projector brightness can be set before scanning.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "errors.h"
#include "io.h"
#include "method.h"
#include "params.h"
#include "patterns.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

constexpr int kFirstFringe = 9;
// Advice thresholds: shares of pixels, and the fringe modulation relative to
// what the projector's white-black swing would allow.
constexpr double kSaturationAdvice = 0.01;
constexpr double kRejectedAdvice = 0.5;
constexpr double kWeakModulation = 0.5;

const char* const kFrameNames[kPhaseShiftFrameCount] = {
    "black",         "white",         "Gray bit 6",    "Gray bit 5",   "Gray bit 4",
    "Gray bit 3",    "Gray bit 2",    "Gray bit 1",    "Gray bit 0",   "fringe 0",
    "fringe 1",      "fringe 2",      "fringe 3"};

std::string capture_name(int camera, int index) {
  char name[32];
  std::snprintf(name, sizeof name, "cam%d_%02d.png", camera, index);
  return name;
}

bool has_any_frame(const std::string& dir, int camera) {
  std::error_code ec;
  for (int index = 0; index < kPhaseShiftFrameCount; ++index) {
    if (fs::exists(fs::path(dir) / capture_name(camera, index), ec)) return true;
  }
  return false;
}

std::vector<cv::Mat> read_camera(const std::string& dir, int camera) {
  std::vector<cv::Mat> frames;
  for (int index = 0; index < kPhaseShiftFrameCount; ++index) {
    const std::string path = (fs::path(dir) / capture_name(camera, index)).string();
    frames.push_back(read_grey_png(path));
    if (frames.back().size() != frames.front().size()) {
      throw file_error(path, "size differs from " + capture_name(camera, 0));
    }
  }
  return frames;
}

struct FrameStats {
  double mean = 0.0;
  double saturated = 0.0;  // share at 255
  double dark = 0.0;       // share below the generator's min white level
};

FrameStats frame_stats(const cv::Mat& frame, int dark_below) {
  FrameStats s;
  const double n = double(frame.total());
  s.mean = cv::mean(frame)[0];
  s.saturated = cv::countNonZero(frame == 255) / n;
  s.dark = cv::countNonZero(frame < dark_below) / n;
  return s;
}

// Pixels the generator keeps on contrast and white level (status 201 aside
// from the period checks).
cv::Mat lit_pixels(const std::vector<cv::Mat>& frames, const PhaseShiftParams& p) {
  cv::Mat white, black;
  frames[1].convertTo(white, CV_32S);
  frames[0].convertTo(black, CV_32S);
  const cv::Mat contrast = cv::abs(white - black);
  return (contrast >= p.min_contrast) & (white <= p.max_white_level) &
         (white >= p.min_white_level);
}

// Median over the lit pixels of the fringes' amplitude,
// 0.5 * sqrt((I3 - I1)^2 + (I2 - I0)^2), and of that amplitude over half the
// white-black swing, which it reaches with ideal fringes.
struct Modulation {
  double grey_levels = 0.0;
  double relative = 0.0;
};

double median(std::vector<double>& values) {
  if (values.empty()) return 0.0;
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

Modulation fringe_modulation(const std::vector<cv::Mat>& frames, const cv::Mat& lit) {
  std::vector<double> amplitude, relative;
  for (int y = 0; y < lit.rows; ++y) {
    const uchar* mask = lit.ptr<uchar>(y);
    const uchar* f[4];
    for (int k = 0; k < 4; ++k) f[k] = frames[kFirstFringe + k].ptr<uchar>(y);
    const uchar* w = frames[1].ptr<uchar>(y);
    const uchar* b = frames[0].ptr<uchar>(y);
    for (int x = 0; x < lit.cols; ++x) {
      if (!mask[x]) continue;
      const double a = 0.5 * std::hypot(double(f[3][x]) - f[1][x], double(f[2][x]) - f[0][x]);
      const int swing = std::abs(int(w[x]) - int(b[x]));
      amplitude.push_back(a);
      if (swing > 0) relative.push_back(a / (0.5 * swing));
    }
  }
  return {median(amplitude), median(relative)};
}

void print_advice(int camera, const std::vector<FrameStats>& stats, double rejected,
                  const Modulation& m) {
  if (stats[1].saturated > kSaturationAdvice) {
    std::printf("  advice: %.1f%% of cam%d's white frame is saturated: shorten the exposure or "
                "dim the projector (clipped fringes bend the phase)\n",
                100.0 * stats[1].saturated, camera);
  }
  if (rejected > kRejectedAdvice) {
    std::printf("  advice: most of cam%d's pixels are too dark or too flat: lengthen the "
                "exposure or brighten the projector\n",
                camera);
  }
  if (rejected < 1.0 && m.relative < kWeakModulation) {
    std::printf("  advice: cam%d's fringes reach only %.0f%% of the white-black swing: focus "
                "projector and camera, or use a longer --period\n",
                camera, 100.0 * m.relative);
  }
}

void report_camera(int camera, const std::vector<cv::Mat>& frames, const PhaseShiftParams& p) {
  std::printf("cam%d: %dx%d\n", camera, frames[0].cols, frames[0].rows);
  std::printf("  frame            mean   at 255  below %d\n", p.min_white_level);
  std::vector<FrameStats> stats;
  for (int index = 0; index < kPhaseShiftFrameCount; ++index) {
    stats.push_back(frame_stats(frames[index], p.min_white_level));
    std::printf("  %02d %-12s %6.1f  %6.1f%%  %6.1f%%\n", index, kFrameNames[index],
                stats.back().mean, 100.0 * stats.back().saturated, 100.0 * stats.back().dark);
  }
  const cv::Mat lit = lit_pixels(frames, p);
  const double rejected = 1.0 - cv::countNonZero(lit) / double(lit.total());
  std::printf("  rejected for low contrast or white level (|white - black| < %d, white "
              "outside %d..%d): %.1f%%\n",
              p.min_contrast, p.min_white_level, p.max_white_level, 100.0 * rejected);
  const Modulation m = fringe_modulation(frames, lit);
  if (rejected < 1.0) {
    std::printf("  fringe modulation over the other pixels: median %.1f grey levels, %.0f%% "
                "of half the white-black swing\n",
                m.grey_levels, 100.0 * m.relative);
  }
  print_advice(camera, stats, rejected, m);
}

}  // namespace

int check_phase_shift_captures(const std::string& dir, const std::string& params_file) {
  MethodParams params;
  if (!params_file.empty()) load_params_file(params_file, Method::kPhaseShift, params);
  check_input_directory(dir);
  std::vector<int> cameras;
  for (int camera = 0; camera < 2; ++camera) {
    if (has_any_frame(dir, camera)) cameras.push_back(camera);
  }
  if (cameras.empty()) {
    throw file_error(dir, "no captures cam0_00.png .. cam0_12.png or cam1_00.png .. cam1_12.png");
  }
  std::vector<std::vector<cv::Mat>> frames;
  for (int camera : cameras) frames.push_back(read_camera(dir, camera));
  for (std::size_t k = 0; k < cameras.size(); ++k) {
    report_camera(cameras[k], frames[k], params.phaseshift);
  }
  return 0;
}

}  // namespace sl3d
