#ifndef SL3D_PATTERNS_PHASE_SHIFT_PATTERNS_H_
#define SL3D_PATTERNS_PHASE_SHIFT_PATTERNS_H_

// The frames a projector throws for one phase-shift capture.
//
// Use make_phase_shift_patterns to get, for a projector of any size, the 13
// frames PhaseShift decodes, in its setpict index order:
//
//   0      black: every pixel 0
//   1      white: 255 on the stripe columns (see below), 0 elsewhere
//   2..8   Gray code of the period index, bit 6 (most significant) first:
//          frame 2 + k is 255 where bit 6 - k of gray(p) = p ^ (p >> 1) is
//          set, p being the column's period index 0..127
//   9..12  fringes: frame 9 + k is
//            round(127.5 + 127.5 * cos(2 pi (x - first_column) / period - k pi / 2))
//          at the column's centre x = column + 0.5
//
// The four fringes give atan2(I3 - I1, I2 - I0) = 2 pi (x - first_column) /
// period - pi, wrapped: the phase rises with the column from -pi at the left
// edge of every period to +pi at its right edge, where the period index
// rises by one. That is the direction PhaseShift unwraps in; its absolute
// phase is that phase plus 2 pi times the period index.
//
// The 128 periods (7 bits of Gray code) lie side by side on the projector's
// columns, centred; columns left over on either side are 0 in every frame,
// so they light nothing and their pixels are rejected for low contrast.
// PhaseShift uses only the periods 25..96, the middle 72: aim the projector
// so that those periods cover what the cameras see.
//
// Rows are all alike: the stripes are vertical, for a camera pair side by
// side (rectified rows are the epipolar lines).

#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

namespace sl3d {

constexpr int kPhaseShiftFrameCount = 13;
constexpr int kPhaseShiftPeriods = 128;      // periods the 7-bit Gray code numbers
constexpr int kFirstUsablePeriod = 25;       // PhaseShift rejects periods below
constexpr int kLastUsablePeriod = 96;        // and above these
constexpr int kMinPhaseShiftPeriod = 2;      // projector columns per period
constexpr int kMaxProjectorSide = 16384;     // largest width or height accepted

// Where the stripe periods lie on a projector's columns. Column coordinates
// x are continuous with column c covering [c, c + 1).
struct SL3D_EXPORT PhaseShiftPatternLayout {
  int width = 0;         // projector pixels
  int height = 0;
  int period = 0;        // projector columns per period
  int first_column = 0;  // left edge of period 0

  // Columns [period_begin(p), period_begin(p + 1)) carry period p.
  int period_begin(int p) const { return first_column + p * period; }
  // Columns of the periods PhaseShift uses: [usable_begin, usable_end).
  int usable_begin() const { return period_begin(kFirstUsablePeriod); }
  int usable_end() const { return period_begin(kLastUsablePeriod + 1); }
  // floor((x - first_column) / period); outside 0..127 off the stripes.
  int period_index(double x) const;
  // 2 pi (x - first_column) / period - pi: the absolute phase PhaseShift
  // recovers at projector column coordinate x.
  double absolute_phase(double x) const;
};

// The default period of a projector `width` columns wide: the largest whole
// number of columns with 128 periods fitting the width (width / 128,
// rounded down). Below kMinPhaseShiftPeriod when the width is under 256.
SL3D_EXPORT int default_phase_shift_period(int width);

// The layout of a width x height projector with `period` columns per period
// (0: the default period). Returns false, leaving `layout` alone, unless
// 1 <= width, height <= kMaxProjectorSide, period >= kMinPhaseShiftPeriod
// and 128 * period <= width.
SL3D_EXPORT bool phase_shift_pattern_layout(int width, int height, int period,
                                            PhaseShiftPatternLayout& layout);

// The 13 frames (CV_8UC1, height x width each, newly allocated and owned by
// the caller) in setpict index order, as described above. Returns an empty
// vector when phase_shift_pattern_layout refuses the size or period.
SL3D_EXPORT std::vector<cv::Mat> make_phase_shift_patterns(int width, int height,
                                                           int period = 0);

}  // namespace sl3d

#endif  // SL3D_PATTERNS_PHASE_SHIFT_PATTERNS_H_
