#include <sl3d/patterns/phase_shift_patterns.h>

#include <cmath>

namespace sl3d {

namespace {

constexpr int kFirstGrayFrame = 2;
constexpr int kFirstFringeFrame = 9;
constexpr int kGrayBits = 7;

// One row of every frame; the frames repeat it on every row.
std::vector<cv::Mat> pattern_rows(const PhaseShiftPatternLayout& layout) {
  std::vector<cv::Mat> rows(kPhaseShiftFrameCount);
  for (cv::Mat& row : rows) row = cv::Mat::zeros(1, layout.width, CV_8UC1);
  const int end = layout.period_begin(kPhaseShiftPeriods);
  for (int c = layout.first_column; c < end; ++c) {
    const int p = (c - layout.first_column) / layout.period;
    const int gray = p ^ (p >> 1);
    rows[1].at<uchar>(c) = 255;
    for (int k = 0; k < kGrayBits; ++k) {
      rows[kFirstGrayFrame + k].at<uchar>(c) = (gray >> (kGrayBits - 1 - k)) & 1 ? 255 : 0;
    }
    // Rounding the full-range sinusoid to the nearest level: an error of at
    // most half a level, the least 8 bits allow.
    const double theta = 2.0 * CV_PI * (c + 0.5 - layout.first_column) / layout.period;
    for (int k = 0; k < 4; ++k) {
      const double value = 127.5 + 127.5 * std::cos(theta - k * CV_PI / 2.0);
      rows[kFirstFringeFrame + k].at<uchar>(c) = cv::saturate_cast<uchar>(std::lround(value));
    }
  }
  return rows;
}

}  // namespace

int PhaseShiftPatternLayout::period_index(double x) const {
  return int(std::floor((x - first_column) / period));
}

double PhaseShiftPatternLayout::absolute_phase(double x) const {
  return 2.0 * CV_PI * (x - first_column) / period - CV_PI;
}

int default_phase_shift_period(int width) { return width / kPhaseShiftPeriods; }

bool phase_shift_pattern_layout(int width, int height, int period,
                                PhaseShiftPatternLayout& layout) {
  if (width < 1 || height < 1 || width > kMaxProjectorSide || height > kMaxProjectorSide) {
    return false;
  }
  if (period == 0) period = default_phase_shift_period(width);
  if (period < kMinPhaseShiftPeriod || period > width / kPhaseShiftPeriods) return false;
  layout.width = width;
  layout.height = height;
  layout.period = period;
  layout.first_column = (width - kPhaseShiftPeriods * period) / 2;
  return true;
}

std::vector<cv::Mat> make_phase_shift_patterns(int width, int height, int period) {
  PhaseShiftPatternLayout layout;
  if (!phase_shift_pattern_layout(width, height, period, layout)) return {};
  std::vector<cv::Mat> frames;
  for (const cv::Mat& row : pattern_rows(layout)) {
    frames.push_back(cv::repeat(row, height, 1));
  }
  return frames;
}

}  // namespace sl3d
